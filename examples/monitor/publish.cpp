// publish FILE [SECONDS]: samples the load, the memory, the processes and the network of this machine into
// the monitor file FILE, four times a second, for SECONDS or until it is stopped. `watch FILE` shows it.

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <limits>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

#include <qel/syslib.h>
#include <qel/tmtime.h>
#include <qel/xmonlib.h>

namespace {

using Clock = std::chrono::steady_clock;

// Parameters are found by name, and added when they are new: a network interface may appear later.
void publishReal(monFile& file, const std::string& name, double value)
{
    if (monRealParam* const param = file.Real(name.c_str()))
        param->setValue(value);
}

void publishInt(monFile& file, const std::string& name, int value)
{
    if (monIntParam* const param = file.Int(name.c_str()))
        param->setValue(value);
}

void sampleLoad(monFile& file)
{
    // 0.52 0.58 0.59 3/467 12345: the load, running and all threads, the latest process
    std::ifstream in("/proc/loadavg");
    double load1 = 0, load5 = 0, load15 = 0;
    int running = 0, all = 0, latest = 0;
    char slash = 0;
    if (!(in >> load1 >> load5 >> load15 >> running >> slash >> all >> latest))
        return;
    publishReal(file, "load.1 minute", load1);
    publishReal(file, "load.5 minutes", load5);
    publishReal(file, "load.15 minutes", load15);
    publishInt(file, "processes.running", running);
    publishInt(file, "processes.threads", all);
    publishInt(file, "processes.latest", latest);
}

void sampleMemory(monFile& file)
{
    // MemTotal:       16303428 kB
    std::ifstream in("/proc/meminfo");
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream words(line);
        std::string name;
        double kilobytes = 0;
        words >> name >> kilobytes;
        if (name == "MemTotal:")
            publishReal(file, "memory.total MiB", kilobytes / 1024);
        else if (name == "MemAvailable:")
            publishReal(file, "memory.available MiB", kilobytes / 1024);
    }
}

void sampleProcessor(monFile& file)
{
    // cpu  user nice system idle iowait irq softirq steal ...: ticks since the start
    static double busyBefore = 0, allBefore = 0;
    std::ifstream in("/proc/stat");
    std::string name;
    double busy = 0, all = 0, ticks = 0;
    in >> name;
    for (int column = 0; column < 8 && in >> ticks; ++column) {
        all += ticks;
        busy += column == 3 || column == 4 ? 0 : ticks;
    }
    if (all > allBefore)
        publishReal(file, "processor.busy %", 100 * (busy - busyBefore) / (all - allBefore));
    busyBefore = busy;
    allBefore = all;
}

void sampleNetwork(monFile& file)
{
    //   eth0: 1234 10 0 0 0 0 0 0 5678 20 0 ...: bytes and packets received, six more, bytes and packets sent
    std::ifstream in("/proc/net/dev");
    std::string line;
    while (std::getline(in, line)) {
        const std::size_t colon = line.find(':');
        if (colon == std::string::npos)
            continue;
        std::string name = line.substr(0, colon);
        name.erase(0, name.find_first_not_of(' '));
        std::istringstream numbers(line.substr(colon + 1));
        double columns[10] = {};
        for (double& column : columns)
            numbers >> column;
        publishReal(file, "network." + name + ".received bytes", columns[0]);
        publishReal(file, "network." + name + ".received packets", columns[1]);
        publishReal(file, "network." + name + ".sent bytes", columns[8]);
        publishReal(file, "network." + name + ".sent packets", columns[9]);
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2 || argc > 3) {
        std::cerr << "usage: publish FILE [SECONDS]\n";
        return 2;
    }
    const double seconds = argc == 3 ? std::atof(argv[2]) : std::numeric_limits<double>::infinity();
    try {
        const xstring host = sysGetCurHostName();
        const std::unique_ptr<monFile, qelDelete> file(monFile::Create(argv[1], host.CastToCString()));
        if (file == nullptr) {
            std::cerr << "publish: " << argv[1] << " cannot be written\n";
            return 1;
        }
        monBoolParam* const active = file->Bool("sampling.active");
        monIntParam* const count = file->Int("sampling.count");
        monStringParam* const time = file->String("sampling.time", 40);
        active->setValue(1);

        const auto start = Clock::now();
        for (int samples = 1; std::chrono::duration<double>(Clock::now() - start).count() < seconds;
             ++samples) {
            sampleLoad(*file);
            sampleMemory(*file);
            sampleProcessor(*file);
            sampleNetwork(*file);
            const std::unique_ptr<tmTime, qelDelete> now(tmTime::CurrentTime());
            time->setValue(tmTime::TimeToString(now.get()).CastToCString());
            count->setValue(samples);
            std::this_thread::sleep_for(std::chrono::milliseconds(250));
        }
        active->setValue(0);
    } catch (xthrowable* failure) {
        std::cerr << "publish: " << failure->getQelTypeName() << '\n';
        return 1;
    }
}
