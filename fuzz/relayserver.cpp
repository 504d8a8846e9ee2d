// Arbitrary messages to the server of a remote command, which is always `cat`: it stops the command, ends,
// and leaves no process or descriptor behind.
#include <thread>

#include <qel/rshserver.h>

#include "support/programs.h"
#include "support/streampair.h"
#include "target.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size > 100000)
        return 0;
    const long before = openDescriptors();
    {
        StreamPair pair;
        std::thread serving([&] {
            require(rshServer::Execute(pair.far.get(), nullptr, nullptr) != 0);
            pair.far->Close();
        });
        pair.near->WriteString("cat");
        pair.near->WriteString("");
        pair.near->WriteInt(0);
        pair.near->Flush(1);
        try {
            pair.near->WriteBytes(reinterpret_cast<const char*>(data), static_cast<unsigned>(size));
            pair.near->Flush(1);
        } catch (xthrowable* thrown) { // it may end before it has taken all
            xdelete(thrown);
        }
        pair.near->Close();
        serving.join();
    }
    require(openDescriptors() == before && hasNoChildren());
    return 0;
}
