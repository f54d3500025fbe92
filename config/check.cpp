#include "vellcfg/check.h"
