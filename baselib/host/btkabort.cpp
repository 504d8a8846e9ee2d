#include "btkabort.h"

#include <cstdio>
#include <cstdlib>

void _Abort(const char* message, const char* file, int line)
{
    std::fprintf(stderr, "%s (%s:%d)\n", message, file, line);
    std::fflush(stderr);
    std::abort();
}
