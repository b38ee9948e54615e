#include "command.h"
#include "failure.h"
#include "interrupt.h"
#include "stream_options.h"

#include "nvol2.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

namespace mdch {

namespace {

using Row = std::array<std::string, 4>;

std::vector<int> mediaIds()
{
    std::vector<int> ids;
    int count = nvol2MediaIDList(nullptr, 0);
    while (count > static_cast<int>(ids.size())) { // a volume may come in between
        ids.resize(static_cast<std::size_t>(count));
        count = nvol2MediaIDList(ids.data(), count);
    }
    ids.resize(static_cast<std::size_t>(std::max(count, 0)));
    return ids;
}

std::vector<Row> rows()
{
    std::vector<Row> table;
    for (const int mediaId : mediaIds()) {
        nvol2Media_struct record{};
        if (nvol2MediaGet(mediaId, &record) == 0) {
            const bool isWritable = (record.functions & NVOL2_FUNCTION_WRITE) != 0;
            table.push_back({printable(record.uuid), printable(record.accessPath),
                             record.deviceName[0] != '\0' ? printable(record.deviceName) : "-",
                             isWritable ? "read, write" : "read"});
        }
    }
    return table;
}

std::string tableText(const std::vector<Row>& table)
{
    std::array<std::size_t, 4> widths{};
    for (const Row& row : table) {
        for (std::size_t column = 0; column < row.size(); ++column) {
            widths[column] = std::max(widths[column], row[column].size());
        }
    }
    std::ostringstream text;
    for (const Row& row : table) {
        for (std::size_t column = 0; column + 1 < row.size(); ++column) {
            text << std::left << std::setw(static_cast<int>(widths[column]) + 2) << row[column];
        }
        text << row.back() << '\n';
    }
    return text.str();
}

int runVolumes()
{
    std::vector<Row> table = rows();
    if (table.empty()) {
        return report({"no media volume", "no mounted device tells its UUID",
                       "Mount one, or name a directory with --volume", kExitFile});
    }
    table.insert(table.begin(), {"UUID", "PATH", "DEVICE", "FUNCTIONS"});
    if (!(std::cout << tableText(table) << std::flush)) {
        return report(localFailure("cannot write to standard output", errno));
    }
    return kExitOk;
}

} // namespace

Command addVolumes(CLI::App& line)
{
    CLI::App* volumes = line.add_subcommand("volumes", "list the media volumes: UUID, path, device");
    addCommonOptions(*volumes);
    addVolumeOption(*volumes);
    volumes->footer("Example:\n  mdch volumes\n");
    return {volumes, [](Interrupt&) { return runVolumes(); }};
}

} // namespace mdch
