#include "password.h"

#include "failure.h"
#include "interrupt.h"
#include "prompt.h"

#include <cerrno>
#include <fstream>
#include <iostream>

namespace mdch {

namespace {

// An empty file is an empty password.
bool readFile(const std::string& path, std::string& password, int& status)
{
    std::ifstream file(path);
    const bool opened = file.is_open();
    if (opened) {
        std::getline(file, password);
    }
    if (!opened || file.bad()) {
        status = report(localFailure("cannot read " + path, errno));
        return false;
    }
    return true;
}

} // namespace

bool readPassword(const UploadOptions& options, Interrupt& interrupt, std::string& password, int& status)
{
    if (options.address.user.empty()) {
        return true;
    }
    if (!options.passwordFile.empty()) {
        return readFile(options.passwordFile, password, status);
    }
    if (options.passwordStdin) {
        std::getline(std::cin, password);
        return true;
    }
    const Question question = {"Password for " + options.address.user + " at " + options.address.server +
                                   ": ",
                               "no password", "Use --password-file or --password-stdin"};
    Failure failure;
    if (askUnseen(question, interrupt, password, failure)) {
        return true;
    }
    status = interrupt.requested() ? interrupt.report() : report(failure);
    return false;
}

} // namespace mdch
