// cChannel: the read path (pieces, line mode, full buffer), the write
// handshake and the select registration, close order, assertions, handle.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "orvo_channel.h"
#include "orvo_handle.h"
#include "orvo_msg.h"
#include "orvo_service.h"
#include "test_helpers.h"

using namespace orvo;
using orvo_test::cTestService;

namespace {

// A channel over one end of a socket pair that records what the base does.
class cFakeChannel : public cChannel {
public:
    explicit cFakeChannel(cService* service) : cChannel(service, nullptr)
    {
        int sv[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM, 0, sv) == 0) {
            Attach(sv[0]);
            peer = sv[1];
        }
    }
    ~cFakeChannel() override
    {
        cFakeChannel::Close();
        if (peer >= 0)
            ::close(peer);
    }
    void Put(const std::string& s) { ASSERT_EQ(::write(peer, s.data(), s.size()), (ssize_t)s.size()); }

    void OnClose() override { log.push_back("OnClose fd=" + std::to_string(GetFd())); }
    int OnRead(const void* data, int size) override
    {
        reads.emplace_back(static_cast<const char*>(data), static_cast<size_t>(size));
        if (closeInRead)
            Close();
        return consume == -1 ? size : consume;
    }
    void OnWrite() override { log.push_back("OnWrite"); }
    void Close() override
    {
        if (m_fd > 0)
            ::close(m_fd);
        cChannel::Close();
    }
    int rawWrite(const void* data, int size) override
    {
        return static_cast<int>(::write(m_fd, data, static_cast<size_t>(size)));
    }
    int rawRead(void* buffer, int size) override
    {
        if (retry) {
            SetReadRetry();
            return 0;
        }
        return static_cast<int>(::read(m_fd, buffer, static_cast<size_t>(size)));
    }
    int Send(cMsg&) override { return 0; }

    int peer = -1;
    std::vector<std::string> reads, log;
    int consume = -1;   // -1: everything offered
    bool retry = false, closeInRead = false;
};

}  // namespace

TEST(Channel, ReadPathCutsPiecesAndKeepsUnconsumedBytes)
{
    cTestService svc;
    cFakeChannel ch(&svc);
    // Line mode: two lines in one read are two calls; a partial line waits.
    ch.SetLineMode(true);
    ch.Put("one\ntwo\nthr");
    ch.OnSelect(SELECT_READ);
    EXPECT_EQ(ch.reads, (std::vector<std::string>{"one\n", "two\n"}));
    EXPECT_EQ(ch.GetRecvFill(), 3);
    ch.Put("ee\n");
    ch.OnSelect(SELECT_READ | SELECT_WRITE);   // reading wins, only reading
    EXPECT_EQ(ch.reads.back(), "three\n");
    EXPECT_TRUE(ch.log.empty());

    // Whole fill as one piece; bytes not taken are offered again, grown.
    ch.SetLineMode(false);
    ch.reads.clear();
    ch.consume = 0;
    ch.Put("abc");
    ch.OnSelect(SELECT_READ);
    ch.Put("de");
    ch.consume = 2;
    ch.OnSelect(SELECT_READ);
    EXPECT_EQ(ch.reads, (std::vector<std::string>{"abc", "abcde", "cde", "e"}));
    EXPECT_EQ(ch.GetRecvFill(), 0);

    // A line longer than the buffer fills it and the channel stops reading.
    ch.SetLineMode(true);
    ch.reads.clear();
    for (int i = 0; i < 3; ++i)
        ch.Put(std::string(4096, 'x'));
    while (ch.GetRecvFill() < cChannel::kRecvBufferSize)
        ch.OnSelect(SELECT_READ);
    EXPECT_TRUE(ch.reads.empty());
    EXPECT_EQ(svc.GetSelectEvents(ch.GetFd()), 0);
}

TEST(Channel, RegistrationFollowsWriteEnableAndReadSwitches)
{
    cTestService svc;
    cFakeChannel ch(&svc);
    const int fd = ch.GetFd();
    EXPECT_NE(::fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_NE(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_EQ(svc.GetSelectEvents(fd), SELECT_READ);
    EXPECT_EQ(ch.GetWriteReadyMsg(), 1);

    EXPECT_EQ(ch.Write("hi", 2), 2);
    EXPECT_EQ(svc.GetSelectEvents(fd), SELECT_READ | SELECT_WRITE);
    ch.OnSelect(SELECT_WRITE);
    EXPECT_FALSE(ch.IsWritePending());
    EXPECT_EQ(ch.log, std::vector<std::string>{"OnWrite"});
    EXPECT_EQ(svc.GetSelectEvents(fd), SELECT_READ);
    ch.EnableRead(false);
    EXPECT_EQ(svc.GetSelectEvents(fd), 0);
    ch.EnableRead(true);

    // Disabling drops buffered input for good.
    ch.consume = 0;
    ch.Put("lost");
    ch.OnSelect(SELECT_READ);
    ch.Enable(false);
    EXPECT_EQ(svc.GetSelectEvents(fd), 0);
    ch.Enable(true);
    EXPECT_EQ(ch.GetRecvFill(), 0);
    EXPECT_EQ(svc.GetSelectEvents(fd), SELECT_READ);

    // Dettach forgets the descriptor without closing it.
    ch.Dettach();
    EXPECT_EQ(svc.GetSelectEvents(fd), 0);
    EXPECT_NE(::fcntl(fd, F_GETFD), -1);
    ::close(fd);
}

TEST(Channel, EndOfStreamCallsOnCloseBeforeClose)
{
    cTestService svc;
    {
        cFakeChannel ch(&svc);
        const int fd = ch.GetFd();
        ch.retry = true;                           // "again later" is no end
        ch.OnSelect(SELECT_READ);
        EXPECT_TRUE(ch.log.empty());
        ch.retry = false;
        ::close(ch.peer);
        ch.peer = -1;
        ch.OnSelect(SELECT_READ);
        EXPECT_EQ(ch.log, std::vector<std::string>{"OnClose fd=" + std::to_string(fd)});
        EXPECT_EQ(ch.GetFd(), -1);
        EXPECT_EQ(svc.GetSelectEvents(fd), 0);
    }
    // Closed from inside OnRead: the loop over the buffer stops at once.
    cFakeChannel ch(&svc);
    ch.SetLineMode(true);
    ch.closeInRead = true;
    ch.Put("a\nb\n");
    ch.OnSelect(SELECT_READ);
    EXPECT_EQ(ch.reads, std::vector<std::string>{"a\n"});
    EXPECT_EQ(ch.GetRecvFill(), 0);
}

TEST(Channel, HandleTextAndQueuedMessagesFollowTheObject)
{
    cTestService svc;
    uint32_t handle;
    {
        cFakeChannel ch(&svc);
        ch.SetObjName("uart1");
        EXPECT_EQ(ch.ToString(), "name=uart1, fd=" + std::to_string(ch.GetFd()));
        handle = ch.GetHandle();
        EXPECT_EQ(HandleResolve(handle, HANDLE_CHANNEL), &ch);
        cMsg mine(0x123, &ch, nullptr), other(0x124);
        svc.OnMsg(mine);
        svc.OnMsg(other);
    }
    EXPECT_EQ(HandleResolve(handle, HANDLE_CHANNEL), nullptr);
    cMsg left;
    ASSERT_EQ(svc.GetQueueSize(), 1u);
    ASSERT_TRUE(svc.GetMessage(left));
    EXPECT_EQ(left.GetType(), 0x124u);
}

namespace {
class cNegativeChannel : public cFakeChannel {
public:
    using cFakeChannel::cFakeChannel;
    int OnRead(const void*, int) override { return -1; }
};
}  // namespace

TEST(ChannelDeathTest, BrokenInvariantsAbort)
{
    cTestService svc;
    EXPECT_DEATH({ cFakeChannel ch(&svc); ch.Attach(ch.peer); }, "m_fd == -1");
    EXPECT_DEATH({ cNegativeChannel ch(&svc); ch.Put("x"); ch.OnSelect(SELECT_READ); }, "count>=0");
    EXPECT_DEATH(svc.ChannelAsyncSelect(-1, SELECT_READ, nullptr, nullptr), "fd>=0");
}
