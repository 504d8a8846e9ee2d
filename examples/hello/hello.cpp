#include <iostream>

#include <qel/qelstd.h>

int main()
{
    const auto person = xanydictionary::make();
    person->set("name", "Ada");
    person->set("age", 36);

    qelPrint(person, std::cout, 2);
    std::cout << std::endl;
}
