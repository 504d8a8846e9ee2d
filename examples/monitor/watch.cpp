// watch FILE [SECONDS]: shows the values in a monitor file, including those added while it runs, once a
// second for SECONDS or until it is stopped: on a terminal as a table updated in place, otherwise as plain
// lines.

#include <chrono>
#include <cstdlib>
#include <iomanip>
#include <iostream>
#include <limits>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

#include <qel/base/btkfd.h>
#include <qel/qelexception.h>
#include <qel/xany.h>
#include <qel/xmonlib.h>
#include <qel/xrtti.h>

namespace {

using Clock = std::chrono::steady_clock;

using Monitor = std::unique_ptr<monFile, qelDelete>;

// The value of a parameter of any type: each has the attribute.
std::string valueOf(monParam& param)
{
    const xany value = xrttistruct::cast(param.getRtti())->findAttr("Value", 1)->getValue(&param);
    std::ostringstream text;
    switch (value.getKind()) {
    case xanyBool:
        text << (static_cast<unsigned char>(value) ? "yes" : "no");
        break;
    case xanyInt:
        text << static_cast<int>(value);
        break;
    case xanyReal:
        text << std::fixed << std::setprecision(2) << static_cast<double>(value);
        break;
    case xanyString:
        text << static_cast<xstring>(value);
        break;
    default:
        text << '-';
    }
    return text.str();
}

// The file's parameters, including new ones, in the order of their names.
std::string tableOf(monFile& file)
{
    std::map<std::string, monParam*> sorted;
    monParamDict* const params = file.getParams();
    for (int slot = 0; slot < params->getarraysize(); ++slot) {
        xstring name;
        if (params->getkeybyindex(slot, &name))
            params->getbyindex(slot, &sorted[name.CastToCString()]);
    }
    std::ostringstream table;
    table << file.getTitle() << '\n';
    for (const auto& [name, param] : sorted)
        table << std::left << std::setw(36) << name << std::right << std::setw(24) << valueOf(*param) << '\n';
    return table.str();
}

// The publisher may replace the file at any time: then it is reopened.
std::string nextTable(Monitor& file, const char* path)
{
    try {
        if (file == nullptr)
            file.reset(monFile::Open(path));
        return file == nullptr ? std::string(path) + " is not there yet\n" : tableOf(*file);
    } catch (xthrowable* failure) {
        const std::string what = failure->getQelTypeName().CastToCString();
        file.reset();
        if (failure->isRefCountable())
            xrcrelease(failure);
        else
            xdelete(failure);
        return what + '\n';
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2 || argc > 3) {
        std::cerr << "usage: watch FILE [SECONDS]\n";
        return 2;
    }
    const double seconds = argc == 3 ? std::atof(argv[2]) : std::numeric_limits<double>::infinity();
    const bool isLive = btkIsTerminal(1);
    const auto pause = std::chrono::milliseconds(isLive ? 250 : 1000);
    const char* const separator = isLive ? "\x1b[H\x1b[J" : "\n"; // clears the screen

    Monitor file;
    const auto start = Clock::now();
    for (bool more = false; std::chrono::duration<double>(Clock::now() - start).count() < seconds;
         more = true) {
        std::cout << (more || isLive ? separator : "") << nextTable(file, argv[1]) << std::flush;
        std::this_thread::sleep_for(pause);
    }
}
