// Serial ports over pseudo-terminal pairs: the port opens the terminal side
// by its path, the test plays the line on the other side. Also the proxy
// socket feeding a port from a real TCP connection on 127.0.0.1.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <thread>

#include "orvo_proxysocket.h"
#include "orvo_service.h"
#include "orvo_uart.h"
#include "test_helpers.h"

using namespace orvo;

namespace {

struct cTestService : orvo_test::cTestService {
    cTestService() { Init("uart", cSocketAddr("127.0.0.1", 0)); }
};

// A pseudo-terminal pair: line is the side the test uses, path names the
// terminal side the port opens.
struct sPty {
    int line = -1;
    std::string path;
    sPty()
    {
        int terminal = -1;
        char name[128];
        if (openpty(&line, &terminal, name, nullptr, nullptr) == 0) {
            path = name;
            close(terminal);
        }
    }
    ~sPty()
    {
        if (line >= 0)
            close(line);
    }
    // Everything the port wrote, up to n bytes, waiting up to 5 s.
    std::string Read(size_t n)
    {
        std::string got;
        char buf[4096];
        while (got.size() < n) {
            pollfd p = {line, POLLIN, 0};
            if (poll(&p, 1, 5000) <= 0)
                break;
            const ssize_t r = read(line, buf, sizeof buf);
            if (r <= 0)
                break;
            got.append(buf, size_t(r));
        }
        return got;
    }
};

using orvo_test::AwaitFrom;

std::string DataOf(const cMsg& m)
{
    cRecordPar p = m.GetRecord().GetFirstPar("DATA");
    return p.IsValid() ? std::string(p.GetData(), size_t(p.GetSize())) : std::string("<none>");
}

}  // namespace

TEST(UartFormat, ValidatesAndPrints)
{
    EXPECT_EQ(cUartFormat().ToString(), "9600 8N1 none RS232");
    EXPECT_EQ(cUartFormat(115200, 7, UART_PARITY_EVEN, 2, UART_FLOW_RTSCTS, UART_RS485).ToString(),
              "115200 7E2 rtscts RS485");
    std::string why;
    EXPECT_TRUE(cUartFormat(50, 5, UART_PARITY_ODD).IsValid(&why));
    EXPECT_FALSE(cUartFormat(9601).IsValid(&why));
    EXPECT_EQ(why, "unsupported baud rate 9601");
    EXPECT_FALSE(cUartFormat(9600, 9).IsValid(&why));
    EXPECT_EQ(why, "unsupported data bits 9");
    EXPECT_FALSE(cUartFormat(9600, 8, UART_PARITY_NONE, 3).IsValid(&why));
    EXPECT_EQ(why, "unsupported stop bits 3");
    EXPECT_TRUE(cUartFormat::IsKnownBaud(921600));

    // The termios of a format, exactly (a pseudo-terminal does not keep
    // every bit, so the flags are checked here).
    termios t;
    std::memset(&t, 0xFF, sizeof t);
    termios untouched = t;
    EXPECT_FALSE(cUartFormat(9601).Apply(t));
    EXPECT_EQ(std::memcmp(&t, &untouched, sizeof t), 0);
    const tcflag_t line = CSIZE | PARENB | PARODD | CSTOPB | CRTSCTS | CLOCAL | CREAD;
    ASSERT_TRUE(cUartFormat(19200, 7, UART_PARITY_EVEN, 2, UART_FLOW_RTSCTS).Apply(t));
    EXPECT_EQ(t.c_cflag & line, tcflag_t(CS7 | PARENB | CSTOPB | CRTSCTS | CLOCAL | CREAD));
    EXPECT_EQ(t.c_iflag & (IXON | IXOFF), 0u);
    EXPECT_EQ(t.c_lflag & (ECHO | ICANON | ISIG | IEXTEN), 0u);
    EXPECT_EQ(cfgetospeed(&t), speed_t(B19200));
    EXPECT_EQ(t.c_cc[VMIN], 1);
    ASSERT_TRUE(cUartFormat(57600, 5, UART_PARITY_ODD, 1, UART_FLOW_XONXOFF).Apply(t));
    EXPECT_EQ(t.c_cflag & line, tcflag_t(CS5 | PARENB | PARODD | CLOCAL | CREAD));
    EXPECT_EQ(t.c_iflag & (IXON | IXOFF), tcflag_t(IXON | IXOFF));
    EXPECT_EQ(cfgetispeed(&t), speed_t(B57600));
    ASSERT_TRUE(cUartFormat(300, 8).Apply(t));
    EXPECT_EQ(t.c_cflag & line, tcflag_t(CS8 | CLOCAL | CREAD));
    EXPECT_EQ(t.c_iflag & (IXON | IXOFF), 0u);
}

TEST(Uart, SettingsBytesBothWaysAndClosedPeer)
{
    sPty pty;
    ASSERT_FALSE(pty.path.empty());
    cTestService svc;
    cUart uart(&svc, nullptr);
    std::string err;
    ASSERT_EQ(uart.Open(pty.path.c_str(), cUartFormat(19200, 7, UART_PARITY_EVEN, 2, UART_FLOW_RTSCTS), err), 0)
        << err;
    termios t;
    ASSERT_EQ(tcgetattr(uart.GetFd(), &t), 0);
    EXPECT_EQ(cfgetospeed(&t), speed_t(B19200));
    EXPECT_EQ(cfgetispeed(&t), speed_t(B19200));
    // (The pseudo-terminal keeps 8 bits and drops PARENB: it has no
    // character framing; Apply is checked for those above.)
    EXPECT_EQ(t.c_cflag & (PARODD | CSTOPB | CRTSCTS | CLOCAL | CREAD), tcflag_t(CSTOPB | CRTSCTS | CLOCAL | CREAD));
    EXPECT_EQ(t.c_lflag & (ECHO | ICANON | ISIG), 0u) << "raw mode";

    ASSERT_EQ(uart.SetFormat(cUartFormat(115200, 8, UART_PARITY_ODD, 1, UART_FLOW_XONXOFF), err), 0) << err;
    ASSERT_EQ(tcgetattr(uart.GetFd(), &t), 0);
    EXPECT_EQ(cfgetospeed(&t), speed_t(B115200));
    EXPECT_EQ(t.c_cflag & (PARODD | CSTOPB | CRTSCTS), tcflag_t(PARODD));
    EXPECT_EQ(t.c_iflag & (IXON | IXOFF), tcflag_t(IXON | IXOFF));
    EXPECT_EQ(uart.GetFormat().ToString(), "115200 8O1 xonxoff RS232");
    EXPECT_EQ(uart.SetFormat(cUartFormat(12345), err), -1);
    EXPECT_EQ(err, "cUart: " + pty.path + ": unsupported baud rate 12345");
    EXPECT_EQ(uart.GetFormat().baud, 115200u) << "a refused format changes nothing";

    // Line to port: bytes arrive as data messages, binary included.
    const std::string in("meter\0\xff\r\n", 9);
    ASSERT_EQ(write(pty.line, in.data(), in.size()), ssize_t(in.size()));
    std::string got;
    while (got.size() < in.size()) {
        cMsg m = AwaitFrom(svc, MSG_SOCKET_DATA, &uart);
        ASSERT_EQ(m, MSG_SOCKET_DATA);
        got += DataOf(m);
    }
    EXPECT_EQ(got, in);

    // Port to line: more than the terminal buffers at once; the rest goes
    // out on write readiness while the loop runs.
    std::string out(60000, 'a');
    for (size_t i = 0; i < out.size(); ++i)
        out[i] = char('a' + i % 26);
    ASSERT_EQ(uart.Write(out.data(), int(out.size())), int(out.size()));
    EXPECT_GT(uart.GetQueued(), 0) << "the terminal cannot take it all at once";
    std::string sent;
    std::thread reader([&] { sent = pty.Read(out.size()); });
    uart.SetWriteReadyMsg(1);
    EXPECT_EQ(AwaitFrom(svc, MSG_SOCKET_WRITABLE, &uart), MSG_SOCKET_WRITABLE);
    reader.join();
    EXPECT_EQ(sent, out);
    EXPECT_EQ(uart.GetQueued(), 0);
    errno = 0;
    EXPECT_EQ(uart.Write(out.data(), cUart::kMaxQueued + 1), -1);
    EXPECT_EQ(errno, ENOBUFS);

    // The other side goes away: reported and closed.
    close(pty.line);
    pty.line = -1;
    EXPECT_EQ(AwaitFrom(svc, MSG_SOCKET_CLOSED, &uart), MSG_SOCKET_CLOSED);
    EXPECT_EQ(uart.GetFd(), -1);
    EXPECT_EQ(uart.Write("x", 1), -1);
}

TEST(Uart, OpenFailuresAndRs485OnTerminalWithoutDriverSupport)
{
    cTestService svc;
    cUart uart(&svc, nullptr);
    std::string err;
    EXPECT_EQ(uart.Open("/nonexistent/ttyS9", cUartFormat(), err), -1);
    EXPECT_EQ(err, "cUart: open '/nonexistent/ttyS9' failed : No such file or directory");
    EXPECT_EQ(uart.Open("/dev/null", cUartFormat(), err), -1);
    EXPECT_EQ(err, "cUart: /dev/null: tcgetattr failed : Inappropriate ioctl for device");
    EXPECT_EQ(uart.GetFd(), -1);

    sPty pty;
    cUartFormat rs485(9600, 8, UART_PARITY_NONE, 1, UART_FLOW_NONE, UART_RS485);
    EXPECT_EQ(uart.Open(pty.path.c_str(), rs485, err), -1);
    EXPECT_EQ(err.rfind("cUart: " + pty.path + ": RS485 mode not supported by the driver : ", 0), 0u) << err;
    EXPECT_EQ(uart.GetFd(), -1) << "the port stays closed";
    // RS232 on the same terminal is fine: there is no RS485 mode to leave.
    EXPECT_EQ(uart.Open(pty.path.c_str(), cUartFormat(), err), 0) << err;
    EXPECT_EQ(uart.SetFormat(rs485, err), -1);
    EXPECT_EQ(uart.GetFormat().mode, UART_RS232);
}

TEST(ProxySocket, RelaysSerialMessagesIntoThePortAndDropsTheRest)
{
    sPty pty;
    cTestService svc;
    cUart uart(&svc, nullptr);
    std::string err;
    ASSERT_EQ(uart.Open(pty.path.c_str(), cUartFormat(), err), 0) << err;
    uart.SetWriteReadyMsg(1);

    cTcpServer<cMsgTcpSocket> server(&svc, cSocketAddr("127.0.0.1", 0), nullptr);
    ASSERT_EQ(server.Run(), 0);
    cProxySocket proxy(&uart);
    EXPECT_EQ(proxy.GetService(), &svc);
    ASSERT_GT(proxy.Socket(AF_INET, SOCK_STREAM, 0), 0);
    ASSERT_EQ(proxy.Connect(cSocketAddr("127.0.0.1", server.GetLocalAddress().GetPort())), 0);
    ASSERT_EQ(AwaitFrom(svc, MSG_SOCKET_ACCEPTED, &server), MSG_SOCKET_ACCEPTED);
    cTcpSocket* remote = server.GetClients().front();

    cMsg data(MSG_SERIAL_DATA);
    data.GetRecord().AppendDataPar("DATA", "abc", 3);
    cMsg noData(MSG_SERIAL_DATA);
    cMsg other(0x20001);
    other.GetRecord().AppendDataPar("DATA", "zzz", 3);
    cMsg writable(MSG_SERIAL_WRITABLE);
    for (cMsg* m : {&other, &data, &noData, &writable})
        ASSERT_GT(remote->Send(*m), 0);

    cMsg first = AwaitFrom(svc, MSG_SOCKET_DATA, &uart);
    EXPECT_EQ(DataOf(first), "abc");
    cMsg second = AwaitFrom(svc, MSG_SOCKET_DATA, &uart);
    EXPECT_EQ(DataOf(second), "") << "no DATA reaches the port as zero bytes";
    EXPECT_EQ(AwaitFrom(svc, MSG_SOCKET_WRITABLE, &uart), MSG_SOCKET_WRITABLE);

    // Nothing else came out of the proxy: neither the other message nor
    // its own connection events.
    remote->Close();
    cMsg m;
    while ((m = svc.WaitSyncMsg(300, 0x7FFFFFF)) != MSG_WAIT_TIMEOUT)
        ;
    for (cMsg got; (got = svc.WaitSyncMsg(1, 0x20001, MSG_SOCKET_CONNECTED, MSG_SOCKET_CLOSED)) != MSG_WAIT_TIMEOUT;)
        EXPECT_NE(got.GetChannel(), static_cast<cChannel*>(&proxy)) << std::hex << got.GetType();
    EXPECT_FALSE(proxy.IsConnected()) << "the proxy saw its connection end";
}
