#include "vellcfg/reader.h"
