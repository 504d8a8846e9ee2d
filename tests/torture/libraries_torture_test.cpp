#include <memory>
#include <string>
#include <thread>

#include <qel/base/btkcmdline.h>
#include <qel/base/btkprocess.h>
#include <qel/base/btksocket.h>
#include <qel/qelstd.h>
#include <qel/xmonlib.h>

#include "support/carried.h"
#include "support/environment.h"
#include "support/owned.h"
#include "support/programs.h"
#include "support/tempdir.h"
#include "support/thrown.h"
#include "support/torture.h"

// Streams, files and the libraries above them with failing allocations.

using torture::need;

namespace {

constexpr char longText[] = "a text that has to be copied somewhere";

const TempDir& folder()
{
    static const TempDir dir(TempDir::InMemory);
    return dir;
}

const EnvSetting ownRegistry("QELSTD_REGISTRY", folder().path("registry"));

/// Writes values of each kind, and reads them again.
void carry(ioStream& stream)
{
    for (int i = 0; i < 50; ++i) {
        stream.WriteInt(i);
        stream.WriteByte('\n');
        stream.WriteReal(i + 0.5);
        stream.WriteByte('\n');
        stream.WriteString(longText);
        stream.WriteByte('\n');
    }
    stream.Flush(1);
}

void takeBack(ioStream& stream)
{
    const bool isText = stream.getSerializer() == ioSerializer::getAscii();
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(stream.ReadInt(), i);
        if (!isText)
            stream.ReadByte();
        EXPECT_EQ(stream.ReadReal(), i + 0.5);
        if (!isText)
            stream.ReadByte();
        EXPECT_TRUE(stream.ReadString("\n") == longText);
        if (!isText)
            stream.ReadByte();
    }
}

// ---- streams

void passThroughMemory(ioSerializer* form)
{
    const Owned<ioStringStream> stream(ioStringStream::Create(xnullstr));
    stream->setSerializer(form);
    carry(*stream);
    takeBack(*stream);
}

TORTURE(TextStream)
{
    passThroughMemory(ioSerializer::getAscii());
}

TORTURE(BinaryStream)
{
    passThroughMemory(ioSerializer::getBinary());
}

TORTURE(NetworkStream)
{
    passThroughMemory(ioSerializer::getXDR());
}

TORTURE(LongString)
{
    const std::string text(200000, 'x');
    const Owned<ioStringStream> stream(ioStringStream::Create(xnullstr));
    stream->setSerializer(ioSerializer::getXDR());
    stream->WriteString(text.c_str());
    EXPECT_EQ(stream->TryReadString(nullptr), ioSuccess);
    EXPECT_EQ(stream->ReadString(nullptr).GetLength(), 200000);
}

TORTURE(Failure)
{
    const Owned<ioStringStream> stream(ioStringStream::Create("17"));
    stream->ReadInt();
    try {
        stream->ReadInt();
    } catch (xthrowable* thrown) {
        const Owned<xthrowable> error(thrown);
        if (const ioXStream* const state = ioXStream::softcast(thrown))
            EXPECT_TRUE(const_cast<ioXStream*>(state)->getMsg() == "Stream Error (iolib): EOF reached");
        else
            EXPECT_EQ(qelXNotInitialized::softcast(thrown), nullptr);
    }
}

TORTURE(FileStream)
{
    const TestPath path = folder().path("values");
    const Owned<ioFileStream> written(ioFileStream::Open(path, ioWriteOnly));
    need(written != nullptr);
    written->setSerializer(ioSerializer::getXDR());
    carry(*written);
    const Owned<ioFileStream> read(ioFileStream::Open(path, ioReadOnly));
    need(read != nullptr);
    read->setSerializer(ioSerializer::getXDR());
    EXPECT_GT(read->TellSize(), 2000);
    read->SeekOff(0, ioBegin);
    takeBack(*read);
}

TORTURE(CopiedStream)
{
    const Owned<ioStringStream> from(ioStringStream::Create(longText));
    const Owned<ioStringStream> to(ioStringStream::Create(xnullstr));
    CopyStream(to.get(), from.get());
    EXPECT_TRUE(to->getStr() == longText);
}

TORTURE(Pipes)
{
    const Owned<ioPipe> pipe(ioPipe::Create());
    need(pipe != nullptr);
    ioStream& reading = *pipe->getReadEnd();
    const Owned<evtEventArray> events(evtEventArray::create());
    const Owned<ioEvent> event(reading.InputEvent());
    events->append(event.get());
    EXPECT_EQ(evtEvent::Wait(events.get(), 0), 0);
    pipe->getWriteEnd()->WriteString(longText);
    EXPECT_EQ(evtEvent::Wait(events.get(), 10), 1);
    EXPECT_EQ(reading.TryReadString(nullptr), ioSuccess);
    EXPECT_TRUE(reading.ReadString(nullptr) == longText);
}

// ---- files

TORTURE(CopiedTree)
{
    const TempDir& dir = folder();
    for (const char* name : {"tree", "copy", "moved"}) // of an attempt that ended early
        if (fshExists(dir.path(name)))
            fsRemove(dir.path(name), fsRecursive);
    fsCreateDir(dir.path("tree/deep/deeper"), fsRecursive);
    {
        const std::ofstream content(dir.path("tree/deep/file"));
    }
    fsCopy(dir.path("tree"), dir.path("copy"), fsReplace, fsNewLink, fsRecursive);
    need(fshIsFile(dir.path("copy/deep/file")));
    fsMove(dir.path("copy"), dir.path("moved"), fsRecursive);
    fsRemove(dir.path("moved"), fsRecursive);
    EXPECT_FALSE(fshExists(dir.path("moved")));
    fsRemove(dir.path("tree"), fsRecursive);
}

TORTURE(ListedFolder)
{
    EXPECT_GE(fsListDirectory("/etc", "*.conf")->getarraysize(), 1);
    EXPECT_GE(fsExpandPattern("/e*/*.conf")->getarraysize(), 1);
    fsiDir dir;
    need(dir.Open("/etc"));
    xstring name;
    need(dir.ReadNextMatching("pass*", name) == fsIOOk);
}

TORTURE(NodeInfo)
{
    const xrchandle<fsNodeInfo> info = fsGetNodeInfo("/etc/passwd");
    EXPECT_GT(info->getSize(), 0);
    const Owned<tmTime> time(info->getModTime());
    EXPECT_GT(time->getAbsTime(), 0);
    xrttistruct* const type = xrttistruct::cast(fsNodeInfo::getClassRtti());
    EXPECT_EQ(type->getAttr(1)->getValue(info.get()).getKind(), xanyObject);
}

TORTURE(PathText)
{
    EXPECT_TRUE(fsCatPaths("C:\\a\\b", "c") == "C:\\a\\b\\c");
    EXPECT_TRUE(fsGetTailEntry("/a/b/c") == "c");
    EXPECT_TRUE(fsIntersectPaths("C:\\a\\b", "C:\\a\\c") == "C:\\a");
    describeThrown([] { fsGetNodeInfo("/there/is/no/such/file"); }, [](xthrowable*) { return 0; });
}

// ---- settings

TORTURE(ConfigFile)
{
    const TestPath path = folder().path("settings");
    hmxConfigFile file;
    need(file.Open(path, hmxConfigFile::ReadWrite));
    for (int i = 0; i < 20; ++i)
        need(file.SetValue(std::to_string(i).c_str(), longText));
    need(file.DeleteValue("7"));
    need(file.CloseChecked());
    need(file.Open(path, hmxConfigFile::ReadOnly));
    EXPECT_TRUE(file.GetValue("8") == longText);
    const xrchandle<xstringsequence> keys = file.GetKeys();
    need(static_cast<bool>(keys));
    EXPECT_EQ(keys->getarraysize(), 19);
}

TORTURE(RegistryKey)
{
    hmxRegistry registry(hmxRegistry::typeUser, '.', "/");
    need(registry.Open());
    hmxRegistryKey key;
    need(key.Create(registry.root, "Torture.Deep"));
    need(key.SetValue("Name", longText));
    EXPECT_TRUE(key.GetValue("Name") == longText);
    const xrchandle<xstringsequence> values = key.ListValues();
    need(static_cast<bool>(values));
    EXPECT_EQ(values->getarraysize(), 1);
    need(key.DeleteValue("Name"));
    key.Close();
    registry.Close();
}

TORTURE(MonitorFile)
{
    const TestPath path = folder().path("monitor");
    const Owned<monFile> written(monFile::Create(path, "a title"));
    need(written != nullptr);
    written->Int("Number")->setValue(17);
    written->Real("Real")->setValue(0.5);
    written->String("Text", 64)->setValue(longText);
    const Owned<monFile> read(monFile::Open(path));
    need(read != nullptr);
    EXPECT_EQ(read->Int("Number")->getValue(), 17);
    EXPECT_TRUE(read->String("Text", 64)->getValue() == longText);
    EXPECT_EQ(read->Bool("Number"), nullptr);
    read->getParams();
}

// ---- the machine

TORTURE(Times)
{
    const Owned<tmTime> time(tmTime::CurrentTime());
    EXPECT_GT(tmTime::TimeToString(time.get()).GetLength(), 0);
}

TORTURE(Environment)
{
    sysPutEnv("QELSTD_TORTURED", longText);
    need(sysGetEnv("QELSTD_TORTURED") == longText);
    EXPECT_GT(sysGetOSType().GetLength(), 0);
}

TORTURE(CommandLine)
{
    std::vector<std::string> words;
    EXPECT_TRUE(btkSplitCommandLine("a \"b c\" "
                                    "a-word-of-more-than-a-few-characters",
                                    words));
    EXPECT_EQ(words.size(), 3u);
    btkQuoteWord(longText);
}

// A process that is freed while it runs is remembered until it has exited: this waits for that.
struct NoneRuns
{
    ~NoneRuns()
    {
        failing::Failing::stop();
        const btkTimeval end = btkTimeval::Now() + btkTimeval(10.0);
        for (btkProcess* none; !hasNoChildren() && btkTimeval::Now() < end;) {
            EXPECT_FALSE(Process_Open(&none, 0)); // takes the exit codes of those without an owner
            std::this_thread::yield();
        }
    }
};

TORTURE(Process)
{
    const NoneRuns atLast;
    const Owned<ioPipe> pipe(ioPipe::Create());
    need(pipe != nullptr);
    const Owned<pcProcess> made(
        pcProcess::Create("echo words", nullptr, nullptr, pipe->getWriteEnd(), nullptr, 0, 0));
    need(made != nullptr);
    const Owned<pcEvent> end(made->ExitEvent());
    need(end != nullptr);
    EXPECT_TRUE(end->Wait(10));
    EXPECT_EQ(made->GetExitCode(), 0);
    pipe->getWriteEnd()->Close();
    pipe->getReadEnd()->setSerializer(ioSerializer::getAscii());
    EXPECT_TRUE(pipe->getReadEnd()->ReadString("\n") == "words");
}

// ---- the network

TORTURE(NameRecord)
{
    const xrchandle<nmsRecord> record(nmsRecord::Create(1));
    need(static_cast<bool>(record));
    need(record->Add("_ServerName", longText));
    need(record->Add("_PortNumber", "4711"));
    const Owned<ioStringStream> wire(ioStringStream::Create(xnullstr));
    wire->setSerializer(ioSerializer::getXDR());
    need(record->Send(wire.get()));
    const xrchandle<nmsRecord> received(nmsRecord::Create(0));
    need(static_cast<bool>(received));
    need(received->Receive(wire.get(), "Torture"));
    EXPECT_TRUE(received->GetFieldValueByName("_ServerName") == longText);
    EXPECT_TRUE(received->Match(record.get()));
    EXPECT_EQ(received->getFields()->find("_PortNumber", nullptr), 1);
}

TORTURE(Address)
{
    const xrchandle<netAddress> made(netAddress::Create(4711, "localhost"));
    need(static_cast<bool>(made));
    EXPECT_EQ(ResolvePort(made.get()), 4711);
}

TORTURE(SocketStream)
{
    auto socket = std::make_unique<btkStreamSocket>();
    btkStreamSocket far;
    btkAcceptSocket door;
    need(door.Listen(0, nullptr) && socket->Connect(nullptr, door.GetPortN(), btkTimeval(10, 0)) &&
         door.Wait(btkTimeval(10, 0), 1) == 1 && door.Accept(&far));
    const Owned<netSocketStream> stream(netSocketStream::Create(socket.release()));
    carry(*stream);
    stream->WriteOutOfBand(5);
    char bytes[64];
    EXPECT_EQ(far.RecvAll(bytes, sizeof bytes), sizeof bytes);
    far.Recv(bytes, 4, true);
    far.Send(bytes, 4);
    stream->ReadInt();
}

TORTURE(FramedConnection)
{
    auto one = std::make_unique<btkStreamSocket>(), other = std::make_unique<btkStreamSocket>();
    btkAcceptSocket door;
    need(door.Listen(0, nullptr) && one->Connect(nullptr, door.GetPortN(), btkTimeval(10, 0)) &&
         door.Wait(btkTimeval(10, 0), 1) == 1 && door.Accept(other.get()));
    const std::unique_ptr<btkStreamSocket> near = carried(std::move(one)), far = carried(std::move(other));
    const std::string data(20000, 'x');
    need(near->Send(data.data(), data.size()) == data.size() && near->Send(longText, 4, true) == 4);
    // Parsed here, and not read into the caller's memory.
    std::size_t held = 0;
    while (far->IsReadable(btkTimeval(10, 0)) && far->CountReadable() > held)
        held = far->CountReadable();
    char value[4];
    need(far->Recv(value, 4, true) == 4);
    std::string got(data.size(), 0);
    need(far->RecvAll(got.data(), got.size()) == got.size());
    EXPECT_TRUE(got == data);
}

TORTURE(Server)
{
    const Owned<netBaseServer> made(netBaseServer::Create(nullptr, 0));
    need(made != nullptr);
    const xrchandle<netAddress> where(netAddress::Create(made->getPortN(), ""));
    const Owned<netSocketStream> client(netBaseServer::Connect(where.get(), 10));
    need(client != nullptr);
    const Owned<netEvent> waits(made->AcceptEvent());
    const Owned<netSocketStream> accepted(made->Accept(10));
    need(accepted != nullptr);
    client->WriteString(longText);
    client->Flush(1);
    EXPECT_TRUE(accepted->ReadString(nullptr) == longText);
}

} // namespace
