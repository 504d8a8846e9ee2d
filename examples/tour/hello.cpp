// A server that greets each client: hello [PORT]

#include <cstdlib>
#include <iostream>
#include <memory>

#include <qel/qelstd.h>

// sample server
class Hello : public netBaseServer_OnRequest_cb
{
    netServerLoopAction Invoke(netBaseServer*, netSocketStream* accepted) override
    {
        const std::unique_ptr<netSocketStream, qelDelete> stream(accepted); // closes it
        stream->setSerializer(ioSerializer::getAscii());                    // lines of text
        xstring greeting("Hello, ", stream->ReadString("\n").CastToCString());
        greeting += "!\n";
        stream->WriteString(greeting.CastToCString());
        return netServerContinue;
    }
};

int main(int argc, char** argv)
{
    Hello hello;
    const std::unique_ptr<netBaseServer, qelDelete> server(
        netBaseServer::Create(nullptr, argc > 1 ? std::atoi(argv[1]) : 0, "127.0.0.1"));
    server->setOnRequest(&hello);
    std::cout << "port " << server->getPortN() << std::endl;
    server->Run();
}
// end
