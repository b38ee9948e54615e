#include "command.h"
#include "failure.h"
#include "interrupt.h"
#include "stream_options.h"
#include "table.h"

#include "nvol2.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <iostream>
#include <string>
#include <vector>

namespace mdch {

namespace {

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

Rows volumeRows()
{
    Rows table;
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

int runVolumes()
{
    Rows table = volumeRows();
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
