// What is done once and by hand: checking, planning, applying. Results go to standard output.
#pragma once

#include "options.h"

namespace cpserver
{

// Each returns an exit status, having said on standard error what went wrong.
int check_file(const options &asked);
int print_plan(const options &asked);
int apply_once(const options &asked);

} // namespace cpserver
