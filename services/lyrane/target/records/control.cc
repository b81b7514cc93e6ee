#include "control.h"

extern "C" {
control_block mmcontrol;
}
