// The remote shell: a command runs at the other end of a connection; its input and outputs are used here.

#include <iostream>
#include <thread>

#include <qel/iopipe.h>
#include <qel/netaddress.h>
#include <qel/netbaseserver.h>
#include <qel/qelown.h>
#include <qel/rshprocess.h>
#include <qel/rshserver.h>

namespace {

// sample server
/// Runs what clients ask for, with the rights of this process: whoever connects is trusted with them.
class Commands : public netBaseServer_OnRequest_cb
{
    netServerLoopAction Invoke(netBaseServer*, netSocketStream* accepted) override
    {
        const qel::owned<netSocketStream> stream(accepted);
        rshServer::Execute(stream.get(), nullptr, nullptr);
        return netServerTerminate; // one command is enough here
    }
};
// end

} // namespace

int main()
{
    Commands commands;
    const qel::owned<netBaseServer> server(netBaseServer::Create(nullptr, 0));
    server->setOnRequest(&commands);
    std::thread loop([&] { server->Run(); });
    const xrchandle<netAddress> address(netAddress::Create(server->getPortN(), nullptr));

    {
        // sample client
        const qel::owned<netSocketStream> stream(netBaseServer::Connect(address.get(), 10.0));
        const qel::owned<rshProcess> sort(
            rshProcess::Create(stream.get(), "sort", nullptr, nullptr, nullptr, nullptr, 1, 0));
        sort->getStdin()->WriteBytes("pears\napples\n", 13);
        sort->getStdin()->Close();
        char line[64];
        const unsigned size =
            sort->getStdout()->ReadBytes(line, sizeof line); // all there is: the outputs end
        std::cout.write(line, size) << "exit code " << sort->WaitExitCode() << std::endl;
        // end
    }
    loop.join();
}
