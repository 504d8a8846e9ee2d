// Each header that a program begins with, as installed.
#include <cstdio>
#include <filesystem>

#include <qel/qelcpp.h>
#include <qel/qelfind.h>
#include <qel/qeljson.h>
#include <qel/qelloop.h>
#include <qel/qelpath.h>
#include <qel/qelserver.h>
#include <qel/qelstd.h>
#include <qel/qeltable.h>

int main()
{
    const auto file = qel::own(monFile::Open(std::filesystem::path("missing.mon")));
    const auto words = qel::split(qel::json::read<xstring>("\"never printed\""), u" ");
    std::puts(file == nullptr && words->size() == 2 ? qelVersion() : "not installed as a whole");
}
