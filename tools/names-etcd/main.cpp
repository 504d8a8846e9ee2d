// qel-names-etcd: keeps the records of a name server in etcd. The name server starts it, and is connected to its
// standard input.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iterator>
#include <string>

#include "keeper.h"

namespace {

// The first line of a file that holds a secret.
std::string secretIn(const std::string& path)
{
    std::ifstream file(path);
    std::string line;
    if (!std::getline(file, line))
        throw CLI::ValidationError("--password-file", "cannot be read: " + path);
    return line;
}

} // namespace

int main(int count, char** words)
{
    KeeperOptions options;
    EtcdOptions store;
    std::string passwordFile;
    CLI::App app("Keeps the records of a name server in etcd; `qel ns serve --store` starts it.");
    app.add_option("--endpoint", store.endpoints, "An endpoint of etcd")->type_name("HOST:PORT")->required();
    app.add_option("--host", options.host, "Name or address of this machine for the others")
        ->type_name("HOST")
        ->required();
    app.add_option("--port", options.port, "Port of the name server")->type_name("PORT")->required();
    app.add_option("--state", options.stateFile, "File that keeps the lease")->type_name("FILE");
    app.add_flag("--shared", options.areNamesShared, "Let records of several processes have the same name");
    app.add_option("--ca", store.authority, "Certificate of etcd's authority; without it, plain HTTP")
        ->type_name("FILE");
    app.add_option("--cert", store.certificate, "Certificate of this client")->type_name("FILE");
    app.add_option("--key", store.key, "Its key")->type_name("FILE");
    app.add_option("--user", store.user, "User of etcd")->type_name("NAME");
    app.add_option("--password-file", passwordFile, "Its password")->type_name("FILE");
    try {
        app.parse(count, words);
        if (!passwordFile.empty())
            store.password = secretIn(passwordFile);
    } catch (const CLI::ParseError& failure) {
        return app.exit(failure);
    }
    try {
        curl_global_init(CURL_GLOBAL_DEFAULT);
        Keeper(nmsChannel(btkFd(0)), options, store).Run();
        return 0;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "qel-names-etcd: %s\n", failure.what());
        return 3;
    }
}
