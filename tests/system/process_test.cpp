// What tests rely on when they start a server: that the one that answers is theirs.
#include "support_process.h"

#include "support/certificates.h"
#include "support/sockets.h"

#include <csignal>
#include <gtest/gtest.h>
#include <string>

namespace {

using support::LoopbackPort;
using support::Process;
using support::waitUntil;

TEST(ProcessTest, APortThatAnotherListensOnIsNotItsOwn)
{
    LoopbackPort taken;
    taken.listenSilently();
    const Process idle({"sleep", "60"});
    // Until it is another program, it holds what the test's process holds.
    EXPECT_TRUE(waitUntil([&] { return !idle.listens(taken.port()); }));
    EXPECT_FALSE(idle.listensIpv6(taken.port()));
}

std::string serverOn(const LoopbackPort& port)
{
    const support::Identity& identity = support::certificates().leaf;
    return "openssl s_server -quiet -accept 127.0.0.1:" + std::to_string(port.port()) + " -cert " +
           identity.pem + " -key " + identity.keyPem;
}

TEST(ProcessTest, APortThatItOrItsChildListensOnIsItsOwn)
{
    const LoopbackPort own(true);
    const LoopbackPort childs(true);
    const Process server({"sh", "-c", "exec " + serverOn(own)});
    const Process parent({"sh", "-c", serverOn(childs) + " & wait"});
    EXPECT_TRUE(waitUntil([&] { return server.listens(own.port()); }));
    EXPECT_TRUE(waitUntil([&] { return parent.listens(childs.port()); }));
    EXPECT_FALSE(server.listens(childs.port()));
    EXPECT_FALSE(parent.listens(own.port()));
}

TEST(ProcessTest, ItsEndIsToldAsOftenAsAsked)
{
    Process seven({"sh", "-c", "exit 7"});
    EXPECT_EQ(seven.wait(), 7);
    EXPECT_EQ(seven.wait(), 7);
    EXPECT_FALSE(seven.isRunning());
    Process killed({"sleep", "60"});
    killed.signal(SIGTERM);
    EXPECT_EQ(killed.wait(), 128 + SIGTERM);
}

} // namespace
