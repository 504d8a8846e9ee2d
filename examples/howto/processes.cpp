// A program with its input and output as pipes: processes
#include <iostream>

#include <qel/iopipe.h>
#include <qel/pcprocess.h>
#include <qel/qelcaught.h>
#include <qel/qelown.h>

int main()
{
    try {
        // sample run
        const auto input = qel::own(ioPipe::Create());
        const auto output = qel::own(ioPipe::Create());
        const auto sort = qel::own(
            pcProcess::Create("sort -r", nullptr, input->getReadEnd(), output->getWriteEnd(), nullptr, 0, 0));
        const auto exited = qel::own(sort->ExitEvent());
        input->getWriteEnd()->WriteBytes("apples\npears\n", 13);
        input->getWriteEnd()->Close(); // the end of its input

        output->getReadEnd()->setSerializer(ioSerializer::getAscii()); // as that of the standard output
        CopyStream(ioStream::getStdout(), output->getReadEnd());       // until it has closed its output
        ioStream::getStdout()->Flush(true);
        if (exited->Wait(10))
            std::cout << "exit code " << sort->GetExitCode() << '\n';
        // end
        return 0;
    } catch (xthrowable* thrown) {
        std::cerr << qel::caught(thrown).what() << '\n';
        return 1;
    }
}
