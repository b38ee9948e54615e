#include "command.h"
#include "failure.h"
#include "interrupt.h"
#include "password.h"
#include "progress.h"
#include "stream_options.h"
#include "upload_options.h"

#include "mdc_hlp_upload.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace mdch {

namespace {

constexpr int kCancelGraceMilliseconds = 5000; // a cancel takes about a second

struct Sending
{
    Progress& progress;
    Interrupt& interrupt;
    std::int64_t count = 0;

    static void report(void* user, long long /*total*/, long long now)
    {
        auto& self = *static_cast<Sending*>(user);
        self.count = now;
        self.interrupt.setBytes(now);
        self.progress.update(now);
    }
};

// The library's result does not say what is wrong with the file. True, or false with the failure.
bool checkFile(const std::string& path, std::int64_t& size, Failure& failure)
{
    struct stat facts = {};
    if (stat(path.c_str(), &facts) != 0 || access(path.c_str(), R_OK) != 0) {
        failure = localFailure("cannot read " + path, errno);
        return false;
    }
    if (!S_ISREG(facts.st_mode)) {
        failure = localFailure("cannot read " + path, EISDIR);
        failure.reason = S_ISDIR(facts.st_mode) ? failure.reason : "it is no regular file";
        return false;
    }
    size = facts.st_size;
    return true;
}

int runUpload(const UploadOptions& options, Interrupt& interrupt)
{
    Failure failure;
    std::int64_t size = 0;
    if (!checkFile(options.file, size, failure)) {
        return report(failure);
    }
    std::string password;
    int status = kExitOk;
    if (!readPassword(options, interrupt, password, status)) {
        return status;
    }
    Progress progress(size, isatty(STDERR_FILENO) != 0);
    Sending sending{progress, interrupt};
    md::FtpAccess access;
    access.setProtocol(options.address.protocol);
    access.setServerUrl(options.address.server);
    access.setUploadedFile(options.address.path);
    access.setUserName(options.address.user);
    access.setUserPassword(password);
    access.setSourceFile(options.file);
    access.setProgressCallback(&sending, &Sending::report);
    interrupt.setAction([&access] { access.cancel(); }, kCancelGraceMilliseconds);
    const int result = access.upload();
    interrupt.setAction(nullptr);
    progress.clear();
    if (result == 0) {
        return kExitOk; // also when the wish to interrupt it came too late
    }
    if (interrupt.requested()) {
        return interrupt.report();
    }
    std::string what = "cannot upload " + options.file + " to " + options.url;
    if (sending.count > 0) {
        what += " after " + bytesOf(sending.count, size);
    }
    return report(uploadFailure(what, result, access.getCurlCode()));
}

void addPasswordOptions(CLI::App& upload, UploadOptions& options)
{
    constexpr const char* kGroup = "Password (asked for at the terminal without these)";
    CLI::Option* file = upload.add_option("--password-file", options.passwordFile, "the first line of FILE")
                            ->option_text("FILE")
                            ->group(kGroup);
    upload.add_flag("--password-stdin", options.passwordStdin, "the first line of standard input")
        ->excludes(file)
        ->group(kGroup);
}

} // namespace

Command addUpload(CLI::App& line)
{
    const auto options = std::make_shared<UploadOptions>();
    CLI::App* upload = line.add_subcommand("upload", "send a file to an FTP server");
    addCommonOptions(*upload);
    upload->add_option("FILE", options->file, "what to send")->option_text(" ")->required();
    upload
        ->add_option("URL", options->url,
                     "ftp://[USER@]HOST/[DIR/]NAME or ftps://...; without USER: anonymous")
        ->option_text(" ")
        ->required()
        ->check([options](const std::string& url) { return parseFtpAddress(url, options->address); });
    addPasswordOptions(*upload, *options);
    upload->callback([options] {
        if (options->address.user.empty() && (!options->passwordFile.empty() || options->passwordStdin)) {
            throw CLI::ValidationError("URL", "a password needs a user: ftp://USER@HOST/...");
        }
    });
    upload->footer("Example:\n  mdch upload film.ts ftps://me@archive.example/films/film.ts\n");
    return {upload, [options](Interrupt& interrupt) { return runUpload(*options, interrupt); }};
}

} // namespace mdch
