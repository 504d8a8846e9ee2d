#include "btkpipe.h"

#include <fcntl.h>
#include <unistd.h>

bool btkAnonymousPipe::Create(btkOutputPipe& output, btkInputPipe& input)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return false;
    input.Reset(ends[0]);
    output.Reset(ends[1]);
    return true;
}
