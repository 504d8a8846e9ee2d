// Catches failures of the library: failures FILE

#include <iostream>

#include <qel/filelib.h>
#include <qel/qelcaught.h>
#include <qel/xsequence.h>

namespace {

// sample any
int numberAt(xintsequence& numbers, int index, int otherwise)
{
    try {
        return numbers.get(index);
    } catch (xthrowable* thrown) {         // every failure of the library is thrown as an xthrowable*
        const qel::caught failure(thrown); // owns it
        std::cout << failure.type() << ": " << failure.what() << std::endl;
        return otherwise;
    }
}
// end

// sample one
bool removeIfThere(const char* path)
{
    try {
        fsRemove(path, fsSimple);
        return true;
    } catch (xthrowable* thrown) {
        qel::caught failure(thrown);
        if (failure.as<fsXDoesNotExist>() == nullptr)
            failure.rethrow(); // not `throw;`: the handler owns the failure
        return false;
    }
}
// end

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2)
        return 2;
    const auto numbers = xintsequence::make();
    std::cout << numberAt(*numbers, 7, 0) << std::endl;
    std::cout << removeIfThere(argv[1]) << std::endl;
}
