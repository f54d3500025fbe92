#include "vellcfg/export.h"
