// A monitor file: one process publishes named values, others watch them. Here both are one program.

#include <iostream>

#include <qel/qelcpp.h>
#include <qel/xmonlib.h>

int main(int, char** argv)
{
    // sample publish
    const auto published = qel::own(monFile::Create(argv[1], "a pump"));
    monRealParam* const pressure = published->Real("pressure.bar");
    monStringParam* const state = published->String("state", 20); // room for 20 bytes
    pressure->setValue(2.5);
    state->setValue("running");
    // end

    // sample watch
    const auto watched = qel::own(monFile::Open(argv[1]));
    std::cout << watched->getTitle() << ": " << watched->Real("pressure.bar")->getValue() << " bar, "
              << watched->String("state", 20)->getValue() << std::endl;
    // end
}
