#pragma once

#include <cerrno>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include <qel/base/btkcarrier.h>

/// As an encrypted channel, but without encryption.
class PlainChannel final : public btkChannel
{
public:
    explicit PlainChannel(std::unique_ptr<btkStreamSocket> connected) : socket(std::move(connected)) {}
    btkHandle GetInput() const override { return socket->GetHandle(); }
    btkHandle GetOutput() const override { return socket->GetHandle(); }
    std::ptrdiff_t Read(char* to, std::size_t size) override
    {
        return resultOf(recv(GetInput(), to, size, MSG_DONTWAIT));
    }
    std::ptrdiff_t Write(const char* from, std::size_t size) override
    {
        return size == 0 ? 0 : resultOf(send(GetOutput(), from, size, MSG_DONTWAIT | MSG_NOSIGNAL));
    }
    bool HasArrived() const override { return btkCountUnsent(GetOutput()) == 0; }
    void Close() override { shutdown(GetInput(), SHUT_RDWR); }
    std::string GetFailure() const override { return "it was cut"; }

private:
    static std::ptrdiff_t resultOf(ssize_t count)
    {
        return count > 0 ? count : count < 0 && errno == EAGAIN ? 0 : -1;
    }

    std::unique_ptr<btkStreamSocket> socket;
};

/// A socket whose connection, that of `plain`, is moved by a btkCarrier. Its peer is named "words".
inline std::unique_ptr<btkStreamSocket> carried(std::unique_ptr<btkStreamSocket> plain)
{
    constexpr btkTimeval aWhile(20, 0);
    auto made = std::make_unique<btkStreamSocket>();
    const btkStreamSocket& from = *plain;
    btkFd connected(dup(from.GetHandle()));
    auto channel = std::make_unique<PlainChannel>(std::move(plain));
    made->Encrypt(std::move(connected), from,
                  std::make_unique<btkCarrier>(std::move(channel), std::vector<std::string>{"words"}, from));
    made->SetRecvLimit(aWhile);
    made->SetSendLimit(aWhile);
    return made;
}
