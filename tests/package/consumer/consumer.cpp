#include <cstdio>

#include <qel/qelversion.h>

int main()
{
    std::puts(qelVersion());
}
