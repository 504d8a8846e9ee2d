#pragma once

#include <qel/qelduration.h>
#include <qel/xsequence.h>

class netService;

/// The work of a service. The application derives from it and owns the object.
///
///     class Work : public netService_DoService_cb
///     {
///         void Invoke(netService*, xrchandle<xstringsequence> parms) override { qelPrint(parms, std::clog, -1); }
///     };
class QEL_API netService_DoService_cb : public virtual xobject
{
    QEL_OBJECT(netService_DoService_cb); // "netlib::Service_DoService_cb"

public:
    /// Does the work of `service`, with the parameters of its start.
    virtual void Invoke(netService* service, xrchandle<xstringsequence> parms) = 0;
};

/// The shell of a system service: a name, parameters, and a handler that does the work. Linux has no such
/// shell: Create and the static status operations end the process with the fatal report. Not counted: freed
/// with xdelete.
///
///     void show(int argc, char** argv)
///     {
///         const auto parms = netService::ExtractParms(argc, argv);
///         std::cout << parms->getarraysize() << " words\n";
///     }
class QEL_API netService : public virtual xobject
{
    QEL_OBJECT(netService); // "netlib::Service"
    QEL_NOT_COUNTED;

public:
    /// Not available: ends the process.
    static netService* Create(const char* name, xrchandle<xstringsequence> parms, const char* displayName);

    /// The caller keeps ownership of the handler. Null: none.
    virtual void setDoService(netService_DoService_cb* handler) { doService = handler; }
    /// Runs the service with its own parameters. Returns true.
    unsigned char Run();
    /// Calls the handler, when one is set.
    void DoService(xrchandle<xstringsequence> parms);
    /// A new sequence, in a handle that owns it, of all `argc` texts of `argv`, the program's name included.
    static xrchandle<xstringsequence> ExtractParms(int argc, char** argv);

    xstring getName() const { return name; }
    xstring getDisplayName() const { return displayName; }

    // ---- status; `seconds`: how long starting may still take

    static void ReportStarting(double seconds);
    template<qelDuration D>
    static void ReportStarting(const D& limit)
    {
        return ReportStarting(qelSeconds(limit));
    }
    static void ReportRunning();
    static void ReportPaused();
    static unsigned char IsStopped();
    static unsigned char IsPaused();
    static unsigned char IsReleased();
    static void DoPause();

protected:
    /// For operating systems that have such a shell. No `displayName` (null or xnullstr): the name.
    netService(const char* name, xrchandle<xstringsequence> parms, const char* displayName);

private:
    netService_DoService_cb* doService = nullptr;
    xstring name;
    xstring displayName;
    xrchandle<xstringsequence> parms;
};
