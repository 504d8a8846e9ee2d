#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "publishers.h"

// Monitor files in the text formats that Prometheus reads.

enum class ExpositionForm {
    prometheus, // its text format 0.0.4
    openMetrics // 1.0.0
};

/// The media type of the form.
const char* MediaTypeOf(ExpositionForm form);
/// The form for a request whose header Accept has this value.
ExpositionForm FormFor(std::string_view accept);
/// The values of the files. Numbers of which nothing is declared are samples of the metric qel_value; the others have
/// the name, type, unit and help of their description (qelstd-monitor(5)), which is read from the file beside them.
/// Each text is valid: of two samples with the same name and labels the first counts.
std::string Expose(const std::vector<Published>& files, ExpositionForm form);

/// The monitor files that a command was given, or else those of the living servers of this machine.
class ExposedFiles
{
public:
    explicit ExposedFiles(std::vector<std::string> given) : paths(std::move(given)) {}
    std::vector<Published> Read() const;

private:
    std::vector<std::string> paths;
};
