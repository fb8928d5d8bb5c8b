#include <cstdio>
#include <exception>
#include <iostream>

#include <tlx/HostConfig.h>

#include "ConfigReport.h"
#include "Daemon.h"
#include "Root.h"

namespace Veltrane::Quillmark::Qmdisco {

int runProgram(int argc, char** argv, const Hosted& hosted)
{
    try {
        ensureStandardDescriptors();
        const ParsedOptions parsed = parseOptions(argc, argv);
        if (parsed.end) {
            std::fputs(parsed.text.c_str(), *parsed.end == EC_OK ? stdout : stderr);
            return *parsed.end;
        }
        const Options& options = parsed.options;
        Tlx::HostConfig& config = Tlx::HostConfig::instance();
        config.setRoot(absolutePath(options.root.empty() ? config.root() : options.root));
        if (options.checkConfig)
            return checkConfig(std::cout);
        StartReport report;
        if (!options.foreground)
            report = StartReport::detach();
        return Daemon(options, hosted, std::move(report)).run();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "qmdisco: unexpected failure: %s\n", e.what());
        return EC_UNEXPECTED;
    }
}

} // namespace Veltrane::Quillmark::Qmdisco
