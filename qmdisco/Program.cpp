#include <cstdio>
#include <exception>
#include <iostream>

#include <tlx/File.h>
#include <tlx/HostConfig.h>

#include "ConfigReport.h"
#include "Daemon.h"
#include "Root.h"

namespace Veltrane::Quillmark::Qmdisco {

int runProgram(int argc, char** argv, const Hosted& hosted)
{
    try {
        Tlx::fillStandardDescriptors(Tlx::MissingStream::DISCARDS);
        const auto parsed = parseOptions(argc, argv);
        if (!parsed) {
            std::fputs(parsed.error().text.c_str(), parsed.error().code == EC_OK ? stdout : stderr);
            return parsed.error().code;
        }
        const Options& options = *parsed;
        Tlx::HostConfig& config = Tlx::HostConfig::instance();
        config.setRoot(absolutePath(options.root.empty() ? config.root() : options.root));
        if (options.checkConfig)
            return checkConfig(std::cout);
        Result<StartReport> report;
        if (!options.foreground)
            report = StartReport::detach();
        if (!report) {
            std::fprintf(stderr, "qmdisco: %s\n", report.error().text.c_str());
            return report.error().code;
        }
        return Daemon(options, hosted, std::move(*report)).run();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "qmdisco: unexpected failure: %s\n", e.what());
        return EC_UNEXPECTED;
    }
}

} // namespace Veltrane::Quillmark::Qmdisco
