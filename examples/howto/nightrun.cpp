// Publishes values in a monitor file and watches them: nightrun FILE
// Publisher and watcher are two threads here; mostly they are two processes.

#include <chrono>
#include <iostream>
#include <thread>

#include <qel/evtevent.h>
#include <qel/qelcpp.h>
#include <qel/xmonlib.h>

using namespace std::literals;

namespace {

// sample publish
void publish(monFile& file)
{
    monIntParam* const done = file.Int("done");
    monStringParam* const state = file.String("state", 40); // room for 40 bytes
    for (int step = 0; step < 3; ++step) {
        done->setValue(step);
        state->setValue("working");
    }
    state->setValue("finished");
}
// end

// sample watch
void watch(monFile& file)
{
    const auto changed = qel::own(file.ChangeEvent());
    while (file.String("state", 40)->getValue() != "finished")
        changed->Wait(5s); // sleeps until there is something new to read, 5 seconds at most
    std::cout << file.getTitle() << ": " << file.Int("done")->getValue() + 1 << " steps done" << std::endl;
}
// end

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2)
        return 2;
    // sample open
    const auto published = qel::own(monFile::Create(argv[1], "night run")); // null: it cannot be written
    const auto watched = qel::own(monFile::Open(argv[1])); // null: there is no such file, or no monitor file
    // end
    if (published == nullptr || watched == nullptr)
        return 1;
    std::thread publisher([&] { publish(*published); });
    watch(*watched);
    publisher.join();
}
