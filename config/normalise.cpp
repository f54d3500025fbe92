#include "vellcfg/normalise.h"
