#include "contestant.h"

#include <cstdio>
#include <exception>
#include <random>
#include <sstream>
#include <stdexcept>

namespace bench {

namespace {

std::vector<pid_t> processesOf(const std::string& list)
{
    std::vector<pid_t> processes;
    std::istringstream text(list);
    for (std::string number; std::getline(text, number, ',');) {
        processes.push_back(std::stoi(number));
    }
    return processes;
}

void takeOption(Options& options, const std::string& name, const std::string& value)
{
    const std::map<std::string, std::function<void()>> takers = {
        {"--load", [&] { options.load = value; }},
        {"--url", [&] { options.url = value; }},
        {"--block", [&] { options.block = std::stoul(value); }},
        {"--repeat", [&] { options.repeat = std::stoi(value); }},
        {"--count", [&] { options.count = std::stoi(value); }},
        {"--streams", [&] { options.streams = std::stoi(value); }},
        {"--paused", [&] { options.paused = std::stoi(value); }},
        {"--rate", [&] { options.rate = std::stod(value); }},
        {"--length", [&] { options.length = std::stoll(value); }},
        {"--size", [&] { options.size = std::stoll(value); }},
        {"--trusted", [&] { options.trusted = value; }},
        {"--sender", [&] { options.sender = value; }},
        {"--packets", [&] { options.packets = std::stoi(value); }},
        {"--packet-rate", [&] { options.packetRate = std::stoi(value); }},
        {"--servers", [&] { options.servers = processesOf(value); }},
    };
    const auto taker = takers.find(name);
    if (taker == takers.end()) {
        throw std::invalid_argument("unknown option " + name);
    }
    taker->second();
}

Options optionsOf(int argc, char** argv)
{
    const std::vector<std::string> words(argv + 1, argv + argc);
    if (words.size() % 2 != 0) {
        throw std::invalid_argument("an option without a value");
    }
    Options options;
    for (std::size_t i = 0; i < words.size(); i += 2) {
        takeOption(options, words[i], words[i + 1]);
    }
    return options;
}

} // namespace

Report::Report(const Options& options) : m_options(options)
{
    markMemory();
    restart();
}

void Report::markMemory()
{
    m_memory = statusFigure("VmRSS");
}

void Report::restart()
{
    m_running = true;
    m_start = countersNow(m_options.servers);
}

void Report::stop()
{
    if (m_running) {
        m_cost = difference(countersNow(m_options.servers), m_start);
        m_running = false;
    }
}

void Report::addLatency(const std::string& name, double microseconds)
{
    m_latencies[name].push_back(microseconds);
}

std::string Report::json(const std::string& contestant)
{
    stop();
    std::ostringstream line;
    line.precision(12);
    line << R"({"contestant": ")" << contestant << R"(", "load": ")" << m_options.load << R"(", "bytes": )"
         << m_bytes << R"(, "wall": )" << m_cost.wall << R"(, "user": )" << m_cost.user << R"(, "system": )"
         << m_cost.system << R"(, "server": )" << m_cost.servers << R"(, "voluntary": )" << m_cost.voluntary
         << R"(, "involuntary": )" << m_cost.involuntary << R"(, "peak_kib": )" << statusFigure("VmHWM")
         << R"(, "memory_before_kib": )" << m_memory;
    for (const auto& [name, value] : m_values) {
        line << ", \"" << name << "\": " << value;
    }
    line << R"(, "latencies": {)";
    const char* separator = "";
    for (const auto& [name, values] : m_latencies) {
        line << separator << '"' << name << "\": [";
        separator = "";
        for (const double value : values) {
            line << separator << value;
            separator = ", ";
        }
        line << ']';
        separator = ", ";
    }
    line << "}}";
    return line.str();
}

int runContestant(const std::string& name, const Loads& loads, int argc, char** argv)
{
    Options options;
    try {
        options = optionsOf(argc, argv);
        if (loads.count(options.load) == 0) {
            throw std::invalid_argument("no load \"" + options.load + "\"");
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "contestant_%s: %s; loads:", name.c_str(), error.what());
        for (const auto& load : loads) {
            std::fprintf(stderr, " %s", load.first.c_str());
        }
        std::fputc('\n', stderr);
        return 2;
    }
    try {
        Report report(options);
        loads.at(options.load)(options, report);
        std::printf("%s\n", report.json(name).c_str());
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "contestant_%s, %s: %s\n", name.c_str(), options.load.c_str(), error.what());
        return 1;
    }
}

std::vector<long long> seekOffsets(const Options& options, std::size_t room)
{
    const long long last = options.size - static_cast<long long>(room);
    if (last < 0) {
        throw std::runtime_error("no room for seeks: --size");
    }
    std::mt19937_64 random(20); // the same for all
    std::vector<long long> offsets;
    for (int i = 0; i < options.count; ++i) {
        offsets.push_back(static_cast<long long>(random() % static_cast<unsigned long long>(last + 1)));
    }
    return offsets;
}

} // namespace bench
