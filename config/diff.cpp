#include "vellcfg/diff.h"
