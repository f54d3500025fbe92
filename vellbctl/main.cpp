// The process around the program: arguments, standard streams, exit status.
#include <unistd.h>

#include <iostream>

#include "app.h"

int main(int argc, char **argv)
{
    const std::vector<std::string> words(argv + 1, argv + argc);
    return vellbctl::run(words, {std::cout, std::cerr, isatty(STDOUT_FILENO) == 1});
}
