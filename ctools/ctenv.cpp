#include "ctenv.h"

#include <qel/base/btkenvironment.h>

bool Getenv(const char* name, std::string& value)
{
    return btkEnvironment::Get(name, value);
}
