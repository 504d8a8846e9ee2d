#include <qel/base/ctenv.h>

#include <cstdlib>

const char* Getenv(const char* name)
{
    return name == nullptr ? nullptr : std::getenv(name);
}
