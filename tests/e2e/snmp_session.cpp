// An SNMPv3 manager that has known an engine for some time: it takes the engine for one that has booted BOOTS
// times and has run for TIME seconds, as a session of an earlier power-up would, and asks for sysName.0.
// Prints the value.
#include <cstdio>
#include <cstdlib>
// The library's order.
// clang-format off
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
// clang-format on

int main(int argc, char** argv) {
  netsnmp_session settings;
  // BOOTS and TIME, then what snmpget takes, with -e: the engine is known.
  if (argc < 4 || snmp_parse_args(argc - 2, argv + 2, &settings, "", nullptr) < 0) return 2;
  settings.retries = 1;
  settings.timeout = 1'000'000;
  netsnmp_session* session = snmp_open(&settings);
  if (session == nullptr) return 1;
  set_enginetime(session->securityEngineID, static_cast<u_int>(session->securityEngineIDLen),
                 static_cast<u_int>(std::atoi(argv[1])), static_cast<u_int>(std::atoi(argv[2])), TRUE);

  const oid sysName[] = {1, 3, 6, 1, 2, 1, 1, 5, 0};
  netsnmp_pdu* request = snmp_pdu_create(SNMP_MSG_GET);
  snmp_add_null_var(request, sysName, OID_LENGTH(sysName));
  netsnmp_pdu* answer = nullptr;
  const int status = snmp_synch_response(session, request, &answer);
  const bool good = status == STAT_SUCCESS && answer->command == SNMP_MSG_RESPONSE && answer->errstat == 0 &&
                    answer->variables->type == ASN_OCTET_STR;
  if (good) {
    std::printf("%.*s\n", static_cast<int>(answer->variables->val_len), answer->variables->val.string);
  } else {
    snmp_sess_perror("no value", session);
  }
  return good ? 0 : 1;
}
