// The limit against floods, with a clock of the test's own: which connections it ends, and which never.
#include "open_connections.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "support/log_capture.h"

using namespace std::chrono_literals;

namespace
{
class open_connections_limit : public testing::Test
{
    std::vector<int> peers;

protected:
    static constexpr auto start = open_connections::clock::time_point(1h);
    static constexpr size_t kept = open_connections::most_kept;
    open_connections connections;
    std::vector<int> sockets;  // in the order in which they fell idle

    void SetUp() override
    {
        rlimit files;
        ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &files), 0);
        files.rlim_cur = std::min<rlim_t>(files.rlim_max, 2048);
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &files), 0);
    }
    void TearDown() override
    {
        for (const int fd : sockets)
            close(fd);
        for (const int fd : peers)
            close(fd);
    }
    void open_until(size_t count)
    {
        while (sockets.size() < count) {
            int ends[2];
            ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
            connections.idle(ends[0], start + std::chrono::milliseconds(sockets.size()));
            sockets.push_back(ends[0]);
            peers.push_back(ends[1]);
        }
    }
    void send_from_peer(size_t index) const { ASSERT_EQ(send(peers[index], "request", 7, MSG_NOSIGNAL), 7); }
    // What the connection's thread gets: bytes, 0 for the end, or -1 while it would go on waiting.
    ssize_t received(size_t index) const
    {
        char buf[128];
        return recv(sockets[index], buf, sizeof(buf), MSG_DONTWAIT);
    }
    size_t ended() const
    {
        size_t count = 0;
        for (size_t i = 0; i < sockets.size(); i++)
            count += received(i) == 0;
        return count;
    }
};

}  // namespace

TEST_F(open_connections_limit, leaves_idle_ones_alone_while_they_are_few_or_young)
{
    open_until(kept);
    EXPECT_FALSE(connections.too_many());
    EXPECT_EQ(connections.close_idle(start + 24h), 0u);
    open_until(kept + 50);
    EXPECT_TRUE(connections.too_many());
    EXPECT_EQ(connections.close_idle(start + 59s), 0u);
    EXPECT_EQ(ended(), 0u);
    EXPECT_TRUE(log_as_text().empty());
    for (size_t i = 0; i < 50; i++)
        connections.forget(sockets[i]);
    EXPECT_FALSE(connections.too_many());
    EXPECT_EQ(connections.close_idle(start + 24h), 0u);
}

TEST_F(open_connections_limit, ends_the_longest_idle_until_few_are_left)
{
    open_until(kept + 10);
    connections.busy(sockets[0]);  // for hours
    connections.busy(sockets[1]);
    connections.idle(sockets[1], start + 1h);  // has just been answered
    EXPECT_EQ(connections.close_idle(start + 1h), 10u);
    for (size_t i = 0; i < sockets.size(); i++)
        EXPECT_EQ(received(i), i >= 2 && i < 12 ? 0 : -1) << i;
    EXPECT_FALSE(connections.too_many());
    EXPECT_EQ(log_as_text(),
              "5 DumpServer: 266 connections are open: closing 10 that sent nothing for 60 s\n");

    // One sweep a second, whatever comes in.
    open_until(kept + 20);
    EXPECT_EQ(connections.close_idle(start + 1h + 999ms), 0u);
    EXPECT_EQ(connections.close_idle(start + 1h + 1s), 10u);
    EXPECT_EQ(ended(), 20u);
}

TEST_F(open_connections_limit, loses_no_request_that_was_sent_before)
{
    open_until(kept + 1);
    send_from_peer(0);
    EXPECT_EQ(connections.close_idle(start + 1h), 1u);  // before the thread could say that it is busy
    EXPECT_EQ(received(0), 7);
    connections.busy(sockets[0]);
    EXPECT_EQ(send(sockets[0], "answer", 6, MSG_NOSIGNAL), 6);
    connections.idle(sockets[0], start + 1h);
    EXPECT_EQ(received(0), 0);
}
