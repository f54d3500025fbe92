#include "vellcfg/apply.h"
