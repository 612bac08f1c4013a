/* The driver's interface is C: its header, with all its layout assertions, must compile as C. */
#include "orvo/timing/device/ot_api.h"

extern int ot_api_compiles_as_c;
int ot_api_compiles_as_c = (int)sizeof(ot_identity);
