#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <qel/platform/errortable.h>
#include <qel/platform/registry.h>

#include "support/child.h"
#include "support/environment.h"
#include "support/interrupt.h"
#include "support/tempdir.h"
#include "support/test.h"
#include "support/texts.h"

namespace {

/// A key that is open during the object's lifetime; a missing one is created.
class Key
{
public:
    Key(HKEY parent, const std::string& path)
    {
        EXPECT_EQ(
            RegCreateKeyExA(parent, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, &disposition),
            0);
    }
    Key(const Key&) = delete;
    Key& operator=(const Key&) = delete;
    ~Key() { RegCloseKey(key); }
    operator HKEY() const { return key; }
    bool isNew() const { return disposition == REG_CREATED_NEW_KEY; }

private:
    HKEY key = nullptr;
    DWORD disposition = 0;
};

class Registry : public testing::Test
{
protected:
    static long open(HKEY parent, const std::string& path)
    {
        HKEY key = nullptr;
        const long error = RegOpenKeyExA(parent, path.c_str(), 0, KEY_ALL_ACCESS, &key);
        if (error == 0)
            RegCloseKey(key);
        return error;
    }

    static long set(HKEY key, const std::string& name, const std::string& value)
    {
        return RegSetValueExA(key, name.c_str(), 0, REG_SZ,
                              reinterpret_cast<const unsigned char*>(value.c_str()),
                              static_cast<DWORD>(value.size() + 1));
    }

    static std::string get(HKEY key, const std::string& name)
    {
        DWORD type = 0, size = 0;
        if (const long error = RegQueryValueExA(key, name.c_str(), nullptr, &type, nullptr, &size);
            error != 0)
            return "error " + std::to_string(error);
        std::string value(size, '?');
        EXPECT_EQ(RegQueryValueExA(key, name.c_str(), nullptr, &type,
                                   reinterpret_cast<unsigned char*>(value.data()), &size),
                  0);
        EXPECT_EQ(type, REG_SZ);
        EXPECT_EQ(value.back(), '\0');
        value.pop_back();
        return value;
    }

    /// The names in a key, each terminated by "|", and the final error unless it is the usual one.
    static std::string namesOf(HKEY key, decltype(&RegEnumKeyExA) enumerate = &RegEnumKeyExA)
    {
        std::string names;
        for (DWORD index = 0;; ++index) {
            char name[6000];
            DWORD size = sizeof name;
            const long error = enumerate(key, index, name, &size, nullptr, nullptr, nullptr, nullptr);
            if (error == ERROR_NO_MORE_ITEMS)
                return names;
            if (error != 0)
                return names + "error " + std::to_string(error);
            EXPECT_EQ(size, std::strlen(name));
            names += std::string(name) + "|";
        }
    }

    static std::string valuesOf(HKEY key)
    {
        return namesOf(key, [](HKEY values, DWORD index, char* name, DWORD* size, DWORD* reserved, char*,
                               DWORD*, FILETIME*) {
            return RegEnumValueA(values, index, name, size, reserved, nullptr, nullptr, nullptr);
        });
    }

    TempDir dir{TempDir::InMemory};
    EnvSetting store{"QELSTD_REGISTRY", dir.path("in/store")};
};

} // namespace

TEST_F(Registry, ComparesNamesWithoutCaseAndKeepsThemAsWritten)
{
    const Key key(HKEY_CURRENT_USER, "Software\\My Server");
    EXPECT_EQ(set(key, "MaxFields", "1"), 0);
    EXPECT_EQ(set(key, "MAXfields", "2"), 0);

    EXPECT_EQ(get(key, "maxfields"), "2");
    EXPECT_EQ(open(HKEY_CURRENT_USER, "SOFTWARE\\my server"), 0);
    EXPECT_EQ(dir.read("in/store/User/software/my%20server/.name"), "My Server");
    EXPECT_EQ(dir.read("in/store/User/software/my%20server/maxfields.value"),
              std::string("1 MAXfields\n2\0", 14));
    EXPECT_TRUE(Key(HKEY_CURRENT_USER, "software\\MY SERVER\\sub").isNew());
    EXPECT_FALSE(Key(HKEY_CURRENT_USER, "Software\\my server\\sub").isNew());
}

TEST_F(Registry, ConfinesEveryNameToItsStore)
{
    std::vector<std::string> strange =
        textsOf("..|../..|.|/etc/passwd|a/../../b|.lock|.deleted|.new|.name|%41|a+|"
                "x.value|\x01\n\x7F|\xFF\xFE|con| ");
    for (const auto& [size, letter] :
         {std::pair{1000u, 'n'}, {1001u, 'n'}, {600u, '/'}, {200u, 'e'}, {400u, 'f'}})
        strange.emplace_back(size, letter);
    const Key key(HKEY_CURRENT_USER, "Names");
    int number = 0;
    for (const std::string& name : strange) {
        const Key sub(key, name);
        EXPECT_EQ(set(sub, name, "in " + std::to_string(number)), 0) << name;
        EXPECT_EQ(set(key, name, std::to_string(number++)), 0) << name;
    }

    std::vector<std::string> expected = strange;
    expected.emplace_back(); // behind the last bar
    EXPECT_THAT(textsOf(namesOf(key)), testing::UnorderedElementsAreArray(expected));
    EXPECT_THAT(textsOf(valuesOf(key)), testing::UnorderedElementsAreArray(expected));

    number = 0;
    for (const std::string& name : strange) {
        const Key sub(key, name);
        EXPECT_FALSE(sub.isNew()) << name;
        EXPECT_EQ(get(sub, name), "in " + std::to_string(number)) << name;
        EXPECT_EQ(get(key, name), std::to_string(number++)) << name;
    }
    EXPECT_THAT(namesIn(dir.path("in/store")), testing::UnorderedElementsAre(".lock", ".unfinished", "User"));
    EXPECT_FALSE(dir.has("in/passwd"));

    for (const std::string& name : strange) {
        EXPECT_EQ(RegDeleteKeyA(key, name.c_str()), 0) << name;
        EXPECT_EQ(RegDeleteValueA(key, name.c_str()), 0) << name;
        EXPECT_EQ(RegDeleteValueA(key, name.c_str()), ERROR_FILE_NOT_FOUND) << name;
    }
    EXPECT_EQ(namesIn(dir.path("in/store/User/names")),
              std::vector<std::string>(dir.has("in/store/User/names/.name"), ".name"));
}

TEST_F(Registry, EnumeratesNamesInTheirWrittenForm)
{
    EXPECT_EQ(namesOf(HKEY_CURRENT_USER), ""); // the store does not exist yet
    EXPECT_EQ(valuesOf(HKEY_CLASSES_ROOT), "");
    const Key key(HKEY_CURRENT_USER, "Software\\VRX");
    for (const char* sub : {"beta", "Alpha", "g\\below\\deep"}) // several levels at once below an open key
        Key(key, sub);
    for (const char* value : {"Zeta", "", "my value", "100%"})
        EXPECT_EQ(set(key, value, value), 0);

    EXPECT_EQ(namesOf(key), "Alpha|beta|g|");
    EXPECT_EQ(open(key, "G\\Below\\Deep"), 0);
    EXPECT_EQ(valuesOf(key), "|100%|my value|Zeta|");
    EXPECT_EQ(namesOf(HKEY_CURRENT_USER), "Software|");
    EXPECT_EQ(namesOf(HKEY_CLASSES_ROOT), "");
}

TEST_F(Registry, EnumeratesTheStateAtTheFirstIndex)
{
    const Key key(HKEY_CURRENT_USER, "key");
    for (const char* name : {"a", "b"})
        EXPECT_EQ(set(key, name, "text"), 0);
    char name[8], data[8];
    DWORD size = sizeof name, type = 0, dataSize = sizeof data;
    const auto next = [&](DWORD index) {
        size = sizeof name;
        dataSize = sizeof data;
        return RegEnumValueA(key, index, name, &size, nullptr, &type, reinterpret_cast<unsigned char*>(data),
                             &dataSize);
    };

    EXPECT_EQ(next(0), 0);
    EXPECT_EQ(std::string(name) + data, "atext");
    EXPECT_EQ(type, REG_SZ);
    EXPECT_EQ(set(key, "0", "before them"), 0);
    EXPECT_EQ(RegDeleteValueA(key, "b"), 0);
    EXPECT_EQ(next(1), 0);
    EXPECT_STREQ(name, "b");
    EXPECT_EQ(type, REG_NONE); // removed
    EXPECT_EQ(dataSize, 0u);
    EXPECT_EQ(next(2), ERROR_NO_MORE_ITEMS);
    EXPECT_EQ(next(0), ERROR_MORE_DATA); // its text
    EXPECT_EQ(dataSize, 12u);

    size = 1; // no room for the zero byte
    EXPECT_EQ(RegEnumValueA(key, 0, name, &size, nullptr, nullptr, nullptr, nullptr), ERROR_MORE_DATA);
    EXPECT_EQ(size, 1u);
    EXPECT_EQ(RegEnumValueA(key, 0, nullptr, &size, nullptr, nullptr, nullptr, nullptr),
              ERROR_INVALID_PARAMETER);
    EXPECT_EQ(namesOf(nullptr), "error 6");
    EXPECT_EQ(RegDeleteKeyA(HKEY_CURRENT_USER, "key"), 0);
    EXPECT_EQ(namesOf(key), "error 1018");
}

TEST_F(Registry, ReportsWhenASubkeyWasChanged)
{
    Key(HKEY_CURRENT_USER, "Key");
    const struct timespec times[] = {{0, 0}, {1, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, dir.path("in/store/User/key").c_str(), times, 0), 0);
    char name[8], className[8] = "unset";
    DWORD size = sizeof name, classSize = sizeof className;
    FILETIME changed;
    EXPECT_EQ(RegEnumKeyExA(HKEY_CURRENT_USER, 0, name, &size, nullptr, className, &classSize, &changed), 0);
    EXPECT_EQ(std::string(name) + className, "Key");
    EXPECT_EQ(classSize, 0u);
    EXPECT_EQ(changed.dwHighDateTime * 0x100000000 + changed.dwLowDateTime,
              (platSecondsTo1970 + 1) * 10000000ull);
}

TEST_F(Registry, EnumeratesADamagedStoreByItsFileNames)
{
    const Key key(HKEY_CURRENT_USER, "key");
    Key(key, "Sub");
    const std::string folder = "in/store/User/key/";
    dir.write(folder + "sub/.name", "other"); // does not match its folder
    for (const char* name : {"two%20words", "Foreign", "%zz", "zero%00", "two%5Csteps", "one", "short+/rest"})
        dir.makeDir(folder + name);
    dir.makeDir(folder + std::string(200, 'p') + "+/rest");
    for (const auto& [name, text] : rowsOf<2>("one/.name,one\\|v.value,no head|w.value,1 V\ntext|"
                                              "Foreign.value,1 Foreign\ntext|x,1 x\ntext|.new,1 x"))
        dir.write(folder + name, text);

    EXPECT_EQ(namesOf(key), "one|" + std::string(200, 'p') + "rest|sub|two words|");
    EXPECT_EQ(valuesOf(key), "v|w|");
}

TEST_F(Registry, RejectsInvalidPathsAndNames)
{
    for (const char* path : {"", "\\", "\\a", "a\\\\b", "a\\\\"}) {
        HKEY key = nullptr;
        EXPECT_EQ(RegCreateKeyExA(HKEY_CURRENT_USER, path, 0, nullptr, 0, 0, nullptr, &key, nullptr),
                  ERROR_BAD_PATHNAME);
        EXPECT_EQ(RegOpenKeyExA(HKEY_CURRENT_USER, path, 0, 0, &key), ERROR_BAD_PATHNAME);
        EXPECT_EQ(RegDeleteKeyA(HKEY_CURRENT_USER, path), ERROR_BAD_PATHNAME);
    }
    const Key key(HKEY_CURRENT_USER, "trailing\\");
    EXPECT_EQ(set(key, std::string(5000, 'v'), "x"), ERROR_FILENAME_EXCED_RANGE);
    EXPECT_EQ(RegSetValueExA(key, "large", 0, REG_SZ, nullptr, 0x7FFFFFFF), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(set(nullptr, "x", "y"), ERROR_INVALID_HANDLE);
}

TEST_F(Registry, DeletesAKeyWithItsValuesButNotWithSubkeys)
{
    const std::string longName(300, 'k');
    const Key key(HKEY_CURRENT_USER, "top\\key");
    EXPECT_EQ(set(key, longName, "value, no key"), 0);
    EXPECT_EQ(RegDeleteKeyA(HKEY_CURRENT_USER, "top"), ERROR_ACCESS_DENIED);

    Key(key, longName);
    EXPECT_EQ(RegDeleteKeyA(HKEY_CURRENT_USER, "top\\key"), ERROR_ACCESS_DENIED);
    EXPECT_EQ(get(key, longName), "value, no key");
    EXPECT_EQ(RegDeleteKeyA(key, longName.c_str()), 0);
    EXPECT_EQ(RegDeleteKeyA(HKEY_CURRENT_USER, "top\\key"), 0);

    EXPECT_EQ(get(key, longName), "error 2");
    EXPECT_EQ(set(key, "late", "x"), ERROR_KEY_DELETED);
    EXPECT_EQ(RegDeleteKeyA(HKEY_CURRENT_USER, "top\\key"), ERROR_FILE_NOT_FOUND);
}

TEST_F(Registry, ReportsDamagedAndForeignFilesAsUnusable)
{
    const Key key(HKEY_CURRENT_USER, "key");
    for (const char* contents : {"", "1", "\n", "x y\nz", "1\nz", "99999999999 n\nz"}) {
        dir.write("in/store/User/key/v.value", contents);
        EXPECT_EQ(get(key, "v"), "error 1392") << contents;
    }
    std::filesystem::remove(dir.path("in/store/User/key/v.value"));
    ASSERT_EQ(mkfifo(dir.path("in/store/User/key/v.value"), 0600), 0);
    EXPECT_EQ(get(key, "v"), "error 5");
    std::filesystem::remove(dir.path("in/store/User/key/v.value"));
    dir.makeDir("in/store/User/key/v.value");
    EXPECT_EQ(get(key, "v"), "error 5");

    unsigned char small[3];
    DWORD size = sizeof small;
    EXPECT_EQ(set(key, "w", "text"), 0);
    EXPECT_EQ(RegQueryValueExA(key, "w", nullptr, nullptr, small, &size), ERROR_MORE_DATA);
    EXPECT_EQ(size, 5u);
}

TEST_F(Registry, IsInTheUsersConfigurationByDefault)
{
    const EnvSetting none("QELSTD_REGISTRY", nullptr);
    const EnvSetting config("XDG_CONFIG_HOME", dir.path("config").c_str());
    Key(HKEY_CURRENT_USER, "a");
    EXPECT_TRUE(dir.has("config/qelstd/registry/User/a"));
    const EnvSetting relative("XDG_CONFIG_HOME", "config"); // is ignored
    const EnvSetting home("HOME", dir.path("home").c_str());
    Key(HKEY_CURRENT_USER, "b");
    EXPECT_TRUE(dir.has("home/.config/qelstd/registry/User/b"));
    const EnvSetting homeless("HOME", nullptr);
    EXPECT_EQ(open(HKEY_CURRENT_USER, "b"), ERROR_ENVVAR_NOT_FOUND);
    EXPECT_EQ(namesOf(HKEY_CLASSES_ROOT), "error 203");
}

TEST_F(Registry, KeepsTheSystemsRootInEtcIfItsFolderExists)
{
    expectSuccessInChild("this host lets nobody mount", [this] {
        // A private /etc for this process.
        if (!enterOwnMounts() || mount("none", "/etc", "tmpfs", 0, nullptr) != 0)
            return notAllowed;
        umask(077);
        const EnvSetting none("QELSTD_REGISTRY", nullptr);
        const EnvSetting config("XDG_CONFIG_HOME", dir.path("config").c_str());
        Key(HKEY_CLASSES_ROOT, "of the user");
        EXPECT_TRUE(dir.has("config/qelstd/registry/System/of%20the%20user"));
        std::filesystem::create_directories("/etc/qelstd/registry");
        EXPECT_EQ(open(HKEY_CLASSES_ROOT, "of the user"), ERROR_FILE_NOT_FOUND);
        EXPECT_EQ(platRegistryFolder(HKEY_CLASSES_ROOT), "/etc/qelstd/registry/System");

        const Key key(HKEY_CLASSES_ROOT, "Software\\VRX");
        EXPECT_EQ(set(key, "v", "x"), 0);
        Key(HKEY_CURRENT_USER, "still the user's");
        const std::filesystem::path system = "/etc/qelstd/registry/System";
        const auto modeOf = [](const std::filesystem::path& path) {
            return static_cast<unsigned>(std::filesystem::status(path).permissions());
        };
        EXPECT_EQ(modeOf(system), 0755u);
        for (const auto& entry : std::filesystem::recursive_directory_iterator(system))
            EXPECT_EQ(modeOf(entry), entry.is_directory() ? 0755u : 0644u) << entry;
        EXPECT_EQ(modeOf("/etc/qelstd/registry/.lock"), 0600u) << "nobody else may hold up a change";
        {
            const EnvSetting given("QELSTD_REGISTRY", dir.path("given").c_str());
            EXPECT_EQ(platRegistryFolder(HKEY_CLASSES_ROOT), std::string(dir.path("given")) + "/System");
        }
        // A temporarily missing store is not replaced by the user's tree.
        std::filesystem::rename("/etc/qelstd/registry", "/etc/qelstd/away");
        std::filesystem::create_symlink("/nowhere", "/etc/qelstd/registry");
        EXPECT_EQ(open(HKEY_CLASSES_ROOT, "of the user"), ERROR_CANT_RESOLVE_FILENAME);
        return 0;
    });
}

TEST_F(Registry, IsPrivateToItsUser)
{
    const Key key(HKEY_CURRENT_USER, "key");
    EXPECT_EQ(set(key, "v", "x"), 0);
    for (const auto& entry : std::filesystem::recursive_directory_iterator(dir.path("in")))
        EXPECT_EQ(entry.status().permissions() & std::filesystem::perms(077), std::filesystem::perms(0))
            << entry;
}

TEST_F(Registry, ReadsWholeValuesWhileWritersAreKilled)
{
    constexpr int rounds = 20;
    constexpr auto patience = std::chrono::seconds(30);
    const Key key(HKEY_CURRENT_USER, "key");
    const std::string first(3000, 'a'), second(9000, 'b');
    ASSERT_EQ(set(key, "v", first), 0);
    const auto read = [&key] { // with one call: the size changes all the time
        DWORD size = 20000;
        std::string value(size, '?');
        EXPECT_EQ(RegQueryValueExA(key, "v", nullptr, nullptr, reinterpret_cast<unsigned char*>(value.data()),
                                   &size),
                  0);
        value.resize(size - 1);
        return value;
    };
    for (int round = 0; round < rounds; ++round) {
        ChildProcess writer([&]() -> int {
            for (;;) {
                set(key, "v", second);
                set(key, "v", first);
            }
        });
        // Until the writer is seen working; it is killed in the middle of that.
        int changes = 0;
        std::string before = read();
        for (const auto begin = std::chrono::steady_clock::now();
             changes < 5 && std::chrono::steady_clock::now() - begin < patience;) {
            const std::string value = read();
            ASSERT_TRUE(value == first || value == second) << value.size();
            changes += value != before ? 1 : 0;
            before = value;
        }
        EXPECT_EQ(changes, 5);
        writer.signal(SIGKILL);
        writer.wait();
        const std::string left = read();
        EXPECT_TRUE(left == first || left == second) << left.size();
    }
    EXPECT_EQ(set(key, "v", "still writable"), 0);
    EXPECT_EQ(get(key, "v"), "still writable");
    EXPECT_EQ(valuesOf(key), "v|") << "what a killed writer has left is no value";
}

TEST_F(Registry, KeepsTheOldValueWhenWritingFails)
{
    const Key key(HKEY_CURRENT_USER, "key");
    ASSERT_EQ(set(key, "v", "old"), 0);
    EXPECT_EQ(runInChild([&] {
                  signal(SIGXFSZ, SIG_IGN);
                  const rlimit limit = {1000, 1000};
                  setrlimit(RLIMIT_FSIZE, &limit);
                  return static_cast<int>(set(key, "v", std::string(5000, 'n')));
              }),
              static_cast<int>(ERROR_FILE_TOO_LARGE));
    EXPECT_EQ(get(key, "v"), "old");
    EXPECT_TRUE(std::filesystem::is_empty(dir.path("in/store/.unfinished")));
}

TEST_F(Registry, RemovesItsOwnLeftoversOnly)
{
    const Key key(HKEY_CURRENT_USER, "key");
    const std::string unfinished = "in/store/.unfinished/";
    dir.write(unfinished + "0123456789abcdef", "1 v\nhalf written");
    dir.write(unfinished + "fedcba9876543210/v.value", "1 v\nhalf deleted");
    dir.write(unfinished + "fedcba9876543210/sub/.name", "Sub");
    dir.write(unfinished + "fedcba9876543210/notes", "the user's");
    for (const char* name : {"notes", ".unfinished/notes", "User/key/.v.new", "User/key/.new", "User/key/x"})
        dir.write(std::string("in/store/") + name, "the user's");
    dir.link(dir.path("in/store/notes"), unfinished + "0000000000000000");

    EXPECT_EQ(set(key, "v", "x"), 0);
    EXPECT_THAT(namesIn(dir.path("in/store")),
                testing::UnorderedElementsAre(".lock", "notes", ".unfinished", "User"));
    EXPECT_THAT(namesIn(dir.path("in/store/.unfinished")),
                testing::UnorderedElementsAre("0000000000000000", "fedcba9876543210", "notes"));
    EXPECT_EQ(namesIn(dir.path(unfinished + "fedcba9876543210")), std::vector<std::string>{"notes"});
    EXPECT_THAT(namesIn(dir.path("in/store/User/key")),
                testing::IsSupersetOf({".new", ".v.new", "v.value", "x"}));
    EXPECT_EQ(RegDeleteKeyA(HKEY_CURRENT_USER, "key"), ERROR_DIR_NOT_EMPTY);
    EXPECT_EQ(get(key, "v"), "x");
}

TEST_F(Registry, FollowsNoLinkInsideItsStore)
{
    const Key key(HKEY_CURRENT_USER, "a\\key");
    EXPECT_EQ(set(key, "own", "x"), 0);
    dir.write("outside/v.value", "1 v\nouter");
    dir.write("outside/sub/.name", "Sub");
    dir.makeDir("outside/" + std::string(100, 'v'));
    const std::string longName = std::string(200, 'n') + "tail";
    const std::string outside = dir.path("outside");
    for (const auto& [name, target] :
         rowsOf<2>("parent,..|root,/|loop,loop|dangling,nowhere|d.value,nowhere|linked," + outside + "|" +
                   std::string(200, 'n') + "+," + outside + "|v.value," + outside + "/v.value"))
        dir.link(target, "in/store/User/a/key/" + name);

    EXPECT_EQ(namesOf(key), "");
    EXPECT_EQ(valuesOf(key), "own|");
    for (const std::string& name : textsOf("linked|parent|root|loop|dangling|linked\\sub|" + longName)) {
        HKEY opened = nullptr;
        EXPECT_EQ(open(key, name), ERROR_DIRECTORY) << name;
        EXPECT_EQ(RegCreateKeyExA(key, name.c_str(), 0, nullptr, 0, 0, nullptr, &opened, nullptr),
                  ERROR_DIRECTORY)
            << name;
        EXPECT_EQ(RegDeleteKeyA(key, name.c_str()), ERROR_DIRECTORY) << name;
    }
    for (const char* name : {"v", "d"}) {
        EXPECT_EQ(get(key, name), "error " + std::to_string(ERROR_CANT_RESOLVE_FILENAME));
        EXPECT_EQ(set(key, name, "x"), ERROR_CANT_RESOLVE_FILENAME);
        EXPECT_EQ(RegDeleteValueA(key, name), ERROR_CANT_RESOLVE_FILENAME);
    }
    EXPECT_EQ(set(key, longName, "x"), ERROR_DIRECTORY);
    EXPECT_EQ(RegDeleteValueA(key, longName.c_str()), ERROR_DIRECTORY);
    EXPECT_EQ(RegDeleteKeyA(HKEY_CURRENT_USER, "a\\key"), ERROR_DIR_NOT_EMPTY);
    EXPECT_EQ(dir.read("outside/v.value"), "1 v\nouter");
    EXPECT_TRUE(dir.has("outside/sub/.name"));
    EXPECT_EQ(get(key, "own"), "x");

    // The store itself may be reached through links; a root is inside it.
    dir.link("in/store", "way");
    const EnvSetting way("QELSTD_REGISTRY", dir.path("way").c_str());
    EXPECT_EQ(open(HKEY_CURRENT_USER, "a"), 0);
    dir.link("User", "in/store/System");
    EXPECT_EQ(open(HKEY_CLASSES_ROOT, "a"), ERROR_DIRECTORY);
    EXPECT_EQ(namesOf(HKEY_CLASSES_ROOT), "error " + std::to_string(ERROR_DIRECTORY));
}

TEST_F(Registry, ReportsOnlyMissingFilesAsMissing)
{
    dir.write("file");
    dir.link("nowhere", "dangling");
    dir.link("loop", "loop");
    dir.makeDir("empty");
    for (const auto& [error, stores] : {std::pair{ERROR_FILE_NOT_FOUND, "none|none/below/|empty"},
                                        {ERROR_DIRECTORY, "file|file/store"},
                                        {ERROR_CANT_RESOLVE_FILENAME, "dangling|dangling/store/|loop"}})
        for (const std::string& name : textsOf(stores)) {
            const EnvSetting other("QELSTD_REGISTRY", dir.path(name).c_str());
            EXPECT_EQ(open(HKEY_CURRENT_USER, "key"), error) << name;
        }
    dir.write("in/store/User/key");
    EXPECT_EQ(open(HKEY_CURRENT_USER, "key"), ERROR_DIRECTORY);
    EXPECT_EQ(open(HKEY_CURRENT_USER, "key\\below"), ERROR_DIRECTORY);
}

TEST_F(Registry, IsUnlockedThoughAForkedChildLives)
{
    constexpr int children = 8;
    const TempDir disk; // disk writes hold the lock nearly all the time
    const EnvSetting onDisk("QELSTD_REGISTRY", disk.path("store"));
    const Key key(HKEY_CURRENT_USER, "key");
    std::atomic<int> changes = 0;
    std::atomic<bool> isOver = false;
    std::thread writer([&] {
        for (; !isOver; ++changes)
            EXPECT_EQ(set(key, "v", std::to_string(changes)), 0);
    });
    const auto getsOn = [&changes] {
        const int before = changes;
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (changes < before + 2 && std::chrono::steady_clock::now() < end)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return changes >= before + 2;
    };
    std::vector<std::unique_ptr<ChildProcess>> forked; // most while the writer has the lock
    while (static_cast<int>(forked.size()) < children && getsOn())
        forked.push_back(std::make_unique<ChildProcess>([] { return pause(); }));
    EXPECT_TRUE(getsOn());
    isOver = true;
    forked.clear();
    writer.join();
}

TEST_F(Registry, CreatesAKeyWholeOrNotAtAll)
{
    // Both names need a file; the second key cannot be created.
    const std::string path = "Upper Key\\" + std::string(3000, '$');
    HKEY key = nullptr;
    EXPECT_EQ(RegCreateKeyExA(HKEY_CURRENT_USER, path.c_str(), 0, nullptr, 0, 0, nullptr, &key, nullptr),
              ERROR_FILENAME_EXCED_RANGE);
    EXPECT_EQ(namesOf(HKEY_CURRENT_USER), "");

    for (int round = 0; round < 30; ++round) {
        ChildProcess changing([] {
            for (;;) {
                Key(HKEY_CURRENT_USER, "Upper Key");
                RegDeleteKeyA(HKEY_CURRENT_USER, "Upper Key");
            }
            return 0;
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        changing.signal(SIGKILL);
        changing.wait();
        const std::string left = namesOf(HKEY_CURRENT_USER);
        EXPECT_TRUE(left.empty() || left == "Upper Key|") << left;
    }

    // A lost name is written again.
    Key(HKEY_CURRENT_USER, "Upper Key\\Sub");
    std::filesystem::remove(dir.path("in/store/User/upper%20key/.name"));
    EXPECT_EQ(namesOf(HKEY_CURRENT_USER), "upper key|");
    Key(HKEY_CURRENT_USER, "Upper Key\\SUB");
    EXPECT_EQ(namesOf(HKEY_CURRENT_USER), "Upper Key|");
    EXPECT_EQ(dir.read("in/store/User/upper%20key/sub/.name"), "Sub") << "one that is there stays";
}

TEST_F(Registry, WarnsOnceOfOtherUsersWithWriteAccess)
{
    Key(HKEY_CURRENT_USER, "key");
    ASSERT_EQ(chmod(dir.path("in/store"), 0770), 0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(open(HKEY_CURRENT_USER, "key"), 0);
    EXPECT_EQ(open(HKEY_CURRENT_USER, "key"), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Warning: other users can write to the registry in " +
                                                          std::string(dir.path("in/store")) + "\n");
}

TEST_F(Registry, WorksWhileInterruptedBySignals)
{
    const Interrupter interrupter;
    const int before = Interrupter::interrupts;
    for (int i = 0; Interrupter::interrupts < before + 100; ++i) {
        const Key key(HKEY_CURRENT_USER, "Key\\Below");
        EXPECT_EQ(set(key, "v", std::to_string(i)), 0);
        EXPECT_EQ(get(key, "v"), std::to_string(i));
        EXPECT_EQ(valuesOf(key), "v|");
        EXPECT_EQ(RegDeleteValueA(key, "v"), 0);
        ASSERT_EQ(RegDeleteKeyA(HKEY_CURRENT_USER, "key\\below"), 0);
    }
}

TEST_F(Registry, LosesNoUpdateOfManyProcesses)
{
    expectSuccessInChildren(4, [](int child) {
        for (int i = 0; i < 50; ++i) {
            const Key key(HKEY_CURRENT_USER, "shared\\n" + std::to_string(i));
            set(key, "by" + std::to_string(child), "x");
            Key(HKEY_CURRENT_USER, "passing");
            RegDeleteKeyA(HKEY_CURRENT_USER, "passing");
        }
        return testing::Test::HasFailure() ? 1 : 0;
    });
    for (int i = 0; i < 50; ++i) {
        const Key key(HKEY_CURRENT_USER, "shared\\n" + std::to_string(i));
        for (int child = 0; child < 4; ++child)
            EXPECT_EQ(get(key, "by" + std::to_string(child)), "x");
    }
}
