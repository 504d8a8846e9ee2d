// Keeps settings: in a file, and in the user's part of the registry. settings FILE

#include <chrono>
#include <iostream>

#include <qel/hmxconfigfile.h>
#include <qel/qelcpp.h>
#include <qel/reglib.h>

namespace {

// sample file
bool setPort(const char* path, const char* port)
{
    hmxConfigFile file;
    if (!file.Open(path, hmxConfigFile::ReadWrite,
                   std::chrono::seconds(5))) // waits 5 seconds at most for another writer
        return false;
    return file.SetValue("port", port) && file.CloseChecked(); // the old file, or the whole new one
}

xstring getPort(const char* path)
{
    hmxConfigFile file;
    return file.Open(path, hmxConfigFile::ReadOnly) ? file.GetValue("port") : xstring(nullptr);
}
// end

// sample registry
void setLanguage(const char* language)
{
    const auto user = qel::own(regRegistry::User());
    const auto key = qel::own(user->CreateSubkey("Software\\Greeter"));
    key->SetValue("Language", language);
}

xstring getLanguage()
{
    const auto user = qel::own(regRegistry::User());
    const auto key = qel::own(user->OpenSubkey("Software\\Greeter")); // null: missing
    return key == nullptr ? "en" : key->GetStringValue("Language");
}
// end

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2)
        return 2;
    if (!setPort(argv[1], "4711"))
        return 1;
    std::cout << "port " << getPort(argv[1]) << std::endl;
    setLanguage("de");
    std::cout << "language " << getLanguage() << std::endl;
}
