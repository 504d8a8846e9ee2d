#include <stdio.h>

#include <qel/qelstd_c.h>

int main(void)
{
    xstringsequence* words = xstringsequence_create();
    xstringsequence_set(words, 0, "from C");
    __xstring_c first = xstringsequence_get(words, 0);
    puts(xstrgetmb_c(first));
    xstrunlock_c(first);
    xrcrelease_c((xobject*)words);
    return 0;
}
