#include <cstdio>

#include <qel/qelstd.h>

int main()
{
    std::puts(qelVersion());
}
