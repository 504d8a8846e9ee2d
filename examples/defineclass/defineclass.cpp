// A class of an application's own, known to the type system: printed here by generic code that has never
// heard of it.

#include <iostream>

#include <qel/qelprint.h>
#include <qel/qeltable.h>

class Person : public virtual xobject
{
    QEL_OBJECT(Person);
    QEL_PROPERTY(xstring, Name);
    QEL_PROPERTY(int, Age);

public:
    Person(const char* name, int age) : Name(name), Age(age) {}
};

constinit qelClass Person::rtti = {
    .name = "people::Person",
    .counted = true,
    .attrs = {QEL_ATTR(Name), QEL_ATTR(Age, qelOptional)},
};

int main()
{
    qelRegister<Person>();

    const auto ada = qel::make<Person>("Ada", 36);
    const auto nobody = qel::make<Person>("Nobody", xnullint); // an age that is not known: null
    qelPrint(ada, std::cout, 2);
    std::cout << std::endl;
    qelPrint(nobody, std::cout, -1);
    std::cout << std::endl;
}
