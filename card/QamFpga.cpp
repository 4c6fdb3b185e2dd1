#include "card/QamFpga.h"

Qam_fpga_if* QamFpgaIf[MAX_BOARD_NUM];
