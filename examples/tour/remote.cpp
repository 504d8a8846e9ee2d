// The remote shell: a command runs at the other end of a connection; its input and outputs are used here.

#include <iostream>
#include <thread>

#include <qel/iopipe.h>
#include <qel/netaddress.h>
#include <qel/netbaseserver.h>
#include <qel/qelown.h>
#include <qel/qelserver.h>
#include <qel/rshprocess.h>
#include <qel/rshserver.h>

int main()
{
    // sample server
    // Runs the commands of clients with the rights of this process: each client is trusted with them.
    const auto server = qel::own(netBaseServer::Create(nullptr, 0, "127.0.0.1"));
    server->setOnRequest(qel::onRequest([](netSocketStream& client) {
        rshServer::Execute(&client, nullptr, nullptr);
        return netServerTerminate; // one command is enough here
    }));
    // end
    std::thread loop([&] { server->Run(); });
    const xrchandle<netAddress> address(netAddress::Create(server->getPortN(), nullptr));

    {
        // sample client
        const auto stream = qel::own(netBaseServer::Connect(address.get(), 10.0));
        const auto sort =
            qel::own(rshProcess::Create(stream.get(), "sort", nullptr, nullptr, nullptr, nullptr, 1, 0));
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
