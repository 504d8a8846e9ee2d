#include <qel/base/btkabort.h>
#include <qel/base/btkmemory.h>

#include "support/test.h"

TEST(FatalReport, PrintsMessageAndLocationAndEndsTheProcess)
{
    EXPECT_DEATH(_Abort("Can not be here.", "somewhere.cpp", 17),
                 "Can not be here\\. \\(somewhere\\.cpp:17\\)");
}

TEST(DefaultMemoryManager, AllocatesMemoryThatOrdinaryDeleteFrees)
{
    delete new (pDefMemMgr) int(3); // the sanitizers' run proves that both ends match
    const char* copy = btkStrDup("copied");

    EXPECT_STREQ(copy, "copied");

    delete[] copy;
}
