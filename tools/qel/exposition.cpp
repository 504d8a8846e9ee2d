#include "exposition.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <map>
#include <optional>
#include <set>

#include <qel/hmxconfigfile.h>

#include "files.h"

namespace {

// ---- what is declared of values

struct Declaration
{
    std::string metric = {}; // empty: made of the value's name
    std::string type = "gauge";
    std::string unit = {};
    std::string help = {};
    std::string sum = {}; // of a histogram: the value that has the sum of all observations
};
using Declarations = std::map<std::string, Declaration>; // by the value's name

// The values that the servers of this library publish.
const Declarations& declarationsOfServers()
{
    static const Declarations known = {
        {"started", {.unit = "seconds", .help = "When the server began, in seconds since 1970"}},
        {"connections", {.type = "counter", .help = "Connections accepted"}},
        {"requests.served", {.type = "counter", .help = "Requests passed to the handler"}},
        {"requests.ping", {.type = "counter", .help = "Requests for a sign of life"}},
        {"requests.version", {.type = "counter", .help = "Requests for the version"}},
        {"requests.shutdown", {.type = "counter", .help = "Requests to shut down"}},
        {"requests.other", {.type = "counter", .help = "Requests with an unknown code"}},
        {"requests.register", {.type = "counter", .help = "Requests to register a record"}},
        {"requests.delete", {.type = "counter", .help = "Requests to delete a record"}},
        {"requests.query", {.type = "counter", .help = "Queries"}},
        {"refused", {.metric = "qel_refused", .type = "counter", .help = "Requests refused"}},
        {"refused.full", {.type = "counter", .help = "Records refused because the table was full"}},
        {"refused.rights", {.type = "counter", .help = "Connections refused by access control"}},
        {"refused.limit", {.type = "counter", .help = "Requests refused because too many ran at once"}},
        {"refused.thread", {.type = "counter", .help = "Requests refused for lack of a thread"}},
        {"refused.tls", {.type = "counter", .help = "Handshakes of encrypted connections that failed"}},
        {"silent.waiting", {.help = "Connections without a first byte"}},
        {"silent.expired",
         {.type = "counter", .help = "Connections closed because no first byte came in time"}},
        {"silent.displaced",
         {.type = "counter", .help = "Connections closed because too many had no first byte"}},
        {"failures", {.type = "counter", .help = "Exceptions of handlers"}},
        {"bytes.received",
         {.metric = "qel_received",
          .type = "counter",
          .unit = "bytes",
          .help = "Bytes received from clients"}},
        {"bytes.sent",
         {.metric = "qel_sent", .type = "counter", .unit = "bytes", .help = "Bytes sent to clients"}},
        {"async.started", {.type = "counter", .help = "Asynchronous requests started"}},
        {"async.ended", {.type = "counter", .help = "Asynchronous requests completed"}},
        {"async.running", {.help = "Asynchronous requests that run"}},
        {"records", {.help = "Records held"}},
        {"records.ownerless", {.help = "Records held of no process"}},
        {"records.bytes", {.unit = "bytes", .help = "Memory of the records"}},
        {"owners", {.help = "Processes with records"}},
        {"latency.us",
         {.metric = "qel_latency",
          .type = "histogram",
          .unit = "microseconds",
          .help = "Time that a request was served",
          .sum = "latency.us.sum"}},
    };
    return known;
}

struct Unit
{
    const char* name;
    const char* base;
    double factor = 1;
    double divisor = 1; // exact, unlike a factor below 1
};
// Metrics have base units.
constexpr Unit units[] = {
    {"nanoseconds", "seconds", 1, 1e9},  {"microseconds", "seconds", 1, 1e6},
    {"milliseconds", "seconds", 1, 1e3}, {"minutes", "seconds", 60},
    {"hours", "seconds", 3600},          {"days", "seconds", 86400},
    {"kilobytes", "bytes", 1e3},         {"megabytes", "bytes", 1e6},
    {"kibibytes", "bytes", 1024},        {"mebibytes", "bytes", 1048576},
    {"percent", "ratio", 1, 100},
};

const Unit* unitOf(const std::string& name)
{
    const auto known =
        std::find_if(std::begin(units), std::end(units), [&](const Unit& one) { return name == one.name; });
    return known != std::end(units) ? known : nullptr;
}

std::string baseOf(const std::string& unit)
{
    const Unit* const known = unitOf(unit);
    return known != nullptr ? known->base : unit;
}

double inBase(double number, const std::string& unit)
{
    const Unit* const known = unitOf(unit);
    return known != nullptr ? number * known->factor / known->divisor : number;
}

std::string trimmed(const std::string& text)
{
    const std::size_t first = text.find_first_not_of(" \t\r");
    return first == std::string::npos ? std::string()
                                      : text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

constexpr std::uintmax_t largestDescription = 1 << 20;

// The description of a file, which stands beside it: NAME.meta for the files of a publisher, else FILE.meta.
std::string descriptionOf(const Published& file)
{
    return (file.name.empty() ? file.path
                              : (std::filesystem::path(file.path).parent_path() / file.name).string()) +
           ".meta";
}

Declarations declarationsOf(const Published& file)
{
    // Every server publishes its kind.
    const auto kind = file.values.find("kind");
    const bool isServer = kind != file.values.end() && kind->is_string();
    Declarations all = isServer ? declarationsOfServers() : Declarations();
    hmxConfigFile description;
    const std::string path = descriptionOf(file);
    std::error_code failed;
    if (!std::filesystem::is_regular_file(path, failed) ||
        std::filesystem::file_size(path, failed) > largestDescription ||
        !description.Open(PathOf(path).c_str(), hmxConfigFile::ReadOnly, 0.5))
        return all;
    static constexpr std::pair<const char*, std::string Declaration::*> attributes[] = {
        {".metric", &Declaration::metric}, {".type", &Declaration::type}, {".unit", &Declaration::unit},
        {".help", &Declaration::help},     {".sum", &Declaration::sum},
    };
    const xrchandle<xstringsequence> keys = description.GetKeys();
    for (int i = 0; i < keys->getarraysize(); ++i) {
        const std::string key = keys->get(i).CastToCString();
        const xstring value = description.GetValue(key.c_str());
        for (const auto& [ending, member] : attributes)
            if (key.ends_with(ending) && value != nullptr)
                all[key.substr(0, key.size() - std::string_view(ending).size())].*member =
                    trimmed(value.CastToCString());
    }
    return all;
}

// ---- texts

std::string asNumber(double number)
{
    if (!std::isfinite(number))
        return std::isnan(number) ? "NaN" : number > 0 ? "+Inf" : "-Inf";
    char text[32];
    return {text, std::to_chars(text, text + sizeof text, number).ptr};
}

std::optional<double> numberIn(const Json& value)
{
    if (value.is_boolean())
        return value.get<bool>() ? 1 : 0;
    return value.is_number() ? std::optional(value.get<double>()) : std::nullopt;
}

// The text in valid UTF-8 and on one line, with a backslash before backslashes and those characters.
std::string escaped(const std::string& text, std::string_view characters = "\"")
{
    const std::string json = Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
    std::string result;
    for (const char c : Json::parse(json).get<std::string>())
        if (c == '\n')
            result += "\\n";
        else if (c == '\\' || characters.find(c) != std::string_view::npos)
            result.append(1, '\\').append(1, c);
        else
            result += c;
    return result;
}

bool isMetricName(const std::string& name)
{
    const auto isLetter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_'; };
    return !name.empty() && isLetter(name[0]) && std::all_of(name.begin(), name.end(), [&](char c) {
        return isLetter(c) || (c >= '0' && c <= '9');
    });
}

std::string metricNameOf(const std::string& value)
{
    std::string name = "qel_" + value;
    std::replace_if(
        name.begin(), name.end(), [](char c) { return !isMetricName(std::string("_") + c); }, '_');
    return name;
}

std::string withEnding(const std::string& name, const std::string& ending)
{
    return ending.empty() || name.ends_with('_' + ending) ? name : name + '_' + ending;
}

// ---- metrics

struct Metric
{
    std::string type;
    std::string unit;
    std::string help;
    std::string lines;
};

// Collects the samples of all files.
class Metrics
{
public:
    explicit Metrics(ExpositionForm wanted) : form(wanted)
    {
        claim("qel_up", {"gauge", "", "Whether the monitor file can be read", ""});
        claim("qel_value", {form == ExpositionForm::openMetrics ? "unknown" : "untyped", "",
                            "A number of a monitor file of which nothing is declared", ""});
    }

    void Add(const Published& file, const std::string& label)
    {
        labels = "file=\"" + escaped(label) + '"';
        sample("qel_up", "qel_up", "", file.values.is_null() ? 0 : 1);
        if (file.values.is_null())
            return;
        const Declarations declarations = declarationsOf(file);
        std::set<std::string> used; // as parts of histograms
        for (const auto& [name, declaration] : declarations)
            if (declaration.type == "histogram")
                addHistogram(file.values, name, declaration, used);
        for (const auto& [name, value] : file.values.items()) {
            const std::optional<double> number = numberIn(value);
            if (!number || used.contains(name))
                continue;
            const auto found = declarations.find(name);
            if (found == declarations.end() || !addDeclared(name, found->second, *number))
                sample("qel_value", "qel_value", "name=\"" + escaped(name) + '"', *number);
        }
    }

    std::string Text() const
    {
        std::string text;
        for (const auto& [name, metric] : all) {
            if (metric.lines.empty())
                continue;
            const bool isTotal = form == ExpositionForm::prometheus && metric.type == "counter";
            const std::string family = isTotal ? name + "_total" : name;
            if (!metric.help.empty())
                text += "# HELP " + family + ' ' +
                        escaped(metric.help, form == ExpositionForm::prometheus ? "" : "\"") + '\n';
            text += "# TYPE " + family + ' ' + metric.type + '\n';
            if (form == ExpositionForm::openMetrics && !metric.unit.empty())
                text += "# UNIT " + family + ' ' + metric.unit + '\n';
            text += metric.lines;
        }
        return form == ExpositionForm::openMetrics ? text + "# EOF\n" : text;
    }

private:
    // Whether a metric is there, of this type and unit. Names of two metrics never meet.
    bool claim(const std::string& name, Metric metric)
    {
        if (const auto found = all.find(name); found != all.end())
            return found->second.type == metric.type && found->second.unit == metric.unit;
        std::vector<std::string> names = {name};
        if (metric.type == "counter")
            names.push_back(name + "_total");
        else if (metric.type == "histogram")
            for (const char* const ending : {"_bucket", "_count", "_sum"})
                names.push_back(name + ending);
        if (std::any_of(names.begin(), names.end(),
                        [&](const std::string& one) { return taken.contains(one); }))
            return false;
        taken.insert(names.begin(), names.end());
        all[name] = std::move(metric);
        return true;
    }

    bool sample(const std::string& metric, const std::string& name, const std::string& more, double number)
    {
        std::string series = name + '{' + labels + (more.empty() ? "" : ',' + more) + '}';
        if (!there.insert(series).second)
            return false;
        all[metric].lines += series + ' ' + asNumber(number) + '\n';
        return true;
    }

    // The name of the metric of a declaration, which is there then; empty: it cannot be.
    std::string metricOf(const std::string& value, const Declaration& declaration)
    {
        std::string name = declaration.metric.empty() ? metricNameOf(value) : declaration.metric;
        const std::string unit = baseOf(declaration.unit);
        if (declaration.type == "counter" && name.ends_with("_total"))
            name.resize(name.size() - 6);
        name = withEnding(name, unit);
        return isMetricName(name) && claim(name, {declaration.type, unit, declaration.help, ""})
                   ? name
                   : std::string();
    }

    // False: the declaration is of no use, and the number is undeclared.
    bool addDeclared(const std::string& value, const Declaration& declaration, double number)
    {
        if (declaration.type != "gauge" && declaration.type != "counter")
            return false;
        if (declaration.type == "counter" && !(number >= 0))
            return false;
        const std::string metric = metricOf(value, declaration);
        return !metric.empty() && sample(metric, declaration.type == "counter" ? metric + "_total" : metric,
                                         "", inBase(number, declaration.unit));
    }

    // BASE.N counts the observations of at most N that are greater than those of the next smaller N.
    void addHistogram(const Json& values, const std::string& base, const Declaration& declaration,
                      std::set<std::string>& used)
    {
        std::map<double, double> counts;
        double more = 0;
        std::set<std::string> parts;
        for (const auto& [name, value] : values.items()) {
            if (!name.starts_with(base + '.') || !value.is_number() || !(value.get<double>() >= 0))
                continue;
            const std::string_view bound = std::string_view(name).substr(base.size() + 1);
            double limit = 0;
            if (bound == "more")
                more = value.get<double>();
            else if (const auto [end, error] = std::from_chars(bound.begin(), bound.end(), limit);
                     error == std::errc() && end == bound.end() && std::isfinite(limit))
                counts[limit] += value.get<double>();
            else
                continue;
            parts.insert(name);
        }
        const std::string sumName = declaration.sum.empty() ? base + ".sum" : declaration.sum;
        const std::optional<double> sum = values.contains(sumName) ? numberIn(values[sumName]) : std::nullopt;
        const std::string metric = parts.empty() && !sum ? std::string() : metricOf(base, declaration);
        if (metric.empty() || there.contains(metric + "_count{" + labels + '}'))
            return;
        // A publisher of powers of two writes those with counts only; the buckets must stay the same.
        if (std::all_of(counts.begin(), counts.end(), [](const auto& one) { return isPower(one.first); }))
            for (int i = 0; i <= largestPower; ++i)
                counts.try_emplace(std::ldexp(1.0, i), 0);
        double total = 0;
        for (const auto& [limit, count] : counts)
            sample(metric, metric + "_bucket", "le=\"" + asNumber(inBase(limit, declaration.unit)) + '"',
                   total += count);
        sample(metric, metric + "_bucket", "le=\"+Inf\"", total += more);
        sample(metric, metric + "_sum", "", inBase(sum.value_or(0), declaration.unit));
        sample(metric, metric + "_count", "", total);
        used.merge(parts);
        used.insert(sumName);
    }

    static constexpr int largestPower = 25; // of the servers' latency counts
    static bool isPower(double number)
    {
        int exponent = 0;
        return std::frexp(number, &exponent) == 0.5 && exponent >= 1 && exponent <= largestPower + 1;
    }

    const ExpositionForm form;
    std::string labels;
    std::map<std::string, Metric> all;
    std::set<std::string> taken; // the names of metrics and of their samples
    std::set<std::string> there; // names and labels
};

} // namespace

const char* MediaTypeOf(ExpositionForm form)
{
    return form == ExpositionForm::openMetrics ? "application/openmetrics-text; version=1.0.0; charset=utf-8"
                                               : "text/plain; version=0.0.4; charset=utf-8";
}

ExpositionForm FormFor(std::string_view accept)
{
    return accept.find("application/openmetrics-text") != std::string_view::npos ? ExpositionForm::openMetrics
                                                                                 : ExpositionForm::prometheus;
}

std::string Expose(const std::vector<Published>& files, ExpositionForm form)
{
    // Programs of one name are told apart by their ports or else by their order.
    const auto nameOf = [](const Published& file) { return file.name.empty() ? file.path : file.name; };
    std::map<std::string, int> uses;
    for (const Published& file : files)
        ++uses[nameOf(file)];
    Metrics metrics(form);
    std::set<std::string> labels;
    for (const Published& file : files) {
        std::string label = nameOf(file);
        if (uses[label] > 1 && file.values.is_object() && file.values.contains("port"))
            label += ':' + file.values["port"].dump();
        const std::string first = label;
        for (int i = 2; !labels.insert(label).second; ++i)
            label = first + '#' + std::to_string(i);
        metrics.Add(file, label);
    }
    return metrics.Text();
}

std::vector<Published> ExposedFiles::Read() const
{
    std::vector<Published> files;
    if (paths.empty()) {
        files = ReadPublishers(PublisherFolders());
        std::erase_if(files, [](const Published& file) { return !file.isAlive; });
    }
    for (const std::string& path : paths)
        files.push_back(ReadPublished(path));
    return files;
}
