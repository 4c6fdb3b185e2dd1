# shellcheck shell=bash
# Paths to QAM-HEADEND-MIB and the modules that it needs, for smilint and smidump (SMIPATH) and for the programs of
# Net-SNMP (MIBDIRS, MIBS). Needs the package erlang-snmp. In bash:
#
#   build/gcc/tools/qamctl mib > build/QAM-HEADEND-MIB.txt
#   . mibs/paths.sh
#   snmptranslate -Td QAM-HEADEND-MIB::slot1Level
#
# A module for another base, in its own folder, must be added at the end: Net-SNMP uses the last of two.
#
#   MIBDIRS=$MIBDIRS:FOLDER

_qam_mibs() {
  local own base
  own=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)/build || return  # not here: Net-SNMP would read the template
  base=$(dpkg -L erlang-snmp 2>/dev/null | sed -n 's|/SNMPv2-SMI\.mib$||p') || true
  if [[ -z $base ]]; then
    echo "The modules that QAM-HEADEND-MIB needs are missing: install erlang-snmp." >&2
    return 1
  fi
  export SMIPATH=$own:$base
  export MIBDIRS=$SMIPATH
  export MIBS=SNMPv2-MIB:SNMP-FRAMEWORK-MIB:SNMP-MPD-MIB:SNMP-USER-BASED-SM-MIB:QAM-HEADEND-MIB
}
_qam_mibs
