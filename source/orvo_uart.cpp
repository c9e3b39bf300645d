#define ORVO_SOURCE "orvo_uart"
#include "orvo_uart.h"

#include <fcntl.h>
#include <linux/serial.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "orvo_msg.h"
#include "orvo_msgtypes.h"
#include "orvo_trace.h"

namespace orvo {

namespace {

struct sBaud {
    unsigned long rate;
    speed_t code;
};

const sBaud kBauds[] = {
    {50, B50}, {75, B75}, {110, B110}, {134, B134}, {150, B150}, {200, B200}, {300, B300},
    {600, B600}, {1200, B1200}, {1800, B1800}, {2400, B2400}, {4800, B4800}, {9600, B9600},
    {19200, B19200}, {38400, B38400}, {57600, B57600}, {115200, B115200},
#ifdef B230400
    {230400, B230400},
#endif
#ifdef B460800
    {460800, B460800},
#endif
#ifdef B500000
    {500000, B500000},
#endif
#ifdef B576000
    {576000, B576000},
#endif
#ifdef B921600
    {921600, B921600},
#endif
#ifdef B1000000
    {1000000, B1000000},
#endif
#ifdef B1152000
    {1152000, B1152000},
#endif
#ifdef B1500000
    {1500000, B1500000},
#endif
#ifdef B2000000
    {2000000, B2000000},
#endif
#ifdef B2500000
    {2500000, B2500000},
#endif
#ifdef B3000000
    {3000000, B3000000},
#endif
#ifdef B3500000
    {3500000, B3500000},
#endif
#ifdef B4000000
    {4000000, B4000000},
#endif
};

bool BaudCode(unsigned long rate, speed_t& code)
{
    for (const sBaud& b : kBauds)
        if (b.rate == rate) {
            code = b.code;
            return true;
        }
    return false;
}

tcflag_t DataBitsFlag(int bits)
{
    switch (bits) {
    case 5: return CS5;
    case 6: return CS6;
    case 7: return CS7;
    default: return CS8;
    }
}

// Switches the driver's RS485 mode; -1 with errno where it has none.
int SetRs485(int fd, const cUartFormat& format)
{
    serial_rs485 rs485;
    std::memset(&rs485, 0, sizeof rs485);
    if (format.mode == UART_RS485) {
        rs485.flags = SER_RS485_ENABLED | SER_RS485_RTS_ON_SEND;
        rs485.delay_rts_before_send = format.rs485DelayBeforeSend;
        rs485.delay_rts_after_send = format.rs485DelayAfterSend;
    }
    return ::ioctl(fd, TIOCSRS485, &rs485);
}

bool WouldBlock(int err)
{
    return err == EAGAIN || err == EWOULDBLOCK || err == EINTR;
}

}  // namespace

// -------------------------------------------------------------- cUartFormat

cUartFormat::cUartFormat(unsigned long baud_, int dataBits_, eUartParity parity_, int stopBits_,
                         eUartFlow flow_, eUartMode mode_)
    : baud(baud_),
      dataBits(dataBits_),
      parity(parity_),
      stopBits(stopBits_),
      flow(flow_),
      mode(mode_),
      rs485DelayBeforeSend(0),
      rs485DelayAfterSend(0)
{
}

bool cUartFormat::IsKnownBaud(unsigned long rate)
{
    speed_t code;
    return BaudCode(rate, code);
}

bool cUartFormat::IsValid(std::string* why) const
{
    std::string reason;
    if (!IsKnownBaud(baud))
        reason = FormatString("unsupported baud rate %lu", baud);
    else if (dataBits < 5 || dataBits > 8)
        reason = FormatString("unsupported data bits %i", dataBits);
    else if (stopBits != 1 && stopBits != 2)
        reason = FormatString("unsupported stop bits %i", stopBits);
    if (why != nullptr)
        *why = reason;
    return reason.empty();
}

bool cUartFormat::Apply(termios& t) const
{
    speed_t speed = B9600;
    if (!IsValid() || !BaudCode(baud, speed))
        return false;
    cfmakeraw(&t);
    t.c_cflag &= ~(CSIZE | PARENB | PARODD | CSTOPB | CRTSCTS);
    t.c_cflag |= CLOCAL | CREAD | DataBitsFlag(dataBits);
    if (parity != UART_PARITY_NONE)
        t.c_cflag |= PARENB | (parity == UART_PARITY_ODD ? PARODD : 0);
    if (stopBits == 2)
        t.c_cflag |= CSTOPB;
    t.c_iflag &= ~(IXON | IXOFF | IXANY);
    if (flow == UART_FLOW_RTSCTS)
        t.c_cflag |= CRTSCTS;
    else if (flow == UART_FLOW_XONXOFF)
        t.c_iflag |= IXON | IXOFF;
    t.c_cc[VMIN] = 1;
    t.c_cc[VTIME] = 0;
    cfsetispeed(&t, speed);
    cfsetospeed(&t, speed);
    return true;
}

std::string cUartFormat::ToString() const
{
    static const char kParity[] = "NOE";
    static const char* const kFlow[] = {"none", "rtscts", "xonxoff"};
    return FormatString("%lu %i%c%i %s %s", baud, dataBits, kParity[parity % 3], stopBits, kFlow[flow % 3],
                        mode == UART_RS485 ? "RS485" : "RS232");
}

// -------------------------------------------------------------------- cUart

cUart::cUart(cService* service, cStateMachine* statem) : cChannel(service, statem)
{
    SetObjName("cUart");
    SetWriteReadyMsg(0);
}

cUart::~cUart()
{
    cUart::Close();
}

int cUart::Open(const char* device, const cUartFormat& format, std::string& err)
{
    err.clear();
    Close();
    m_Device = device != nullptr ? device : "";
    std::string why;
    if (!format.IsValid(&why)) {
        err = "cUart: " + m_Device + ": " + why;
        return -1;
    }
    const int fd = ::open(m_Device.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        err = FormatString("cUart: open '%s' failed : %s", m_Device.c_str(), strerror(errno));
        return -1;
    }
    if (fd >= FD_SETSIZE) {
        ::close(fd);
        err = FormatString("cUart: open '%s' failed : %s", m_Device.c_str(), strerror(EMFILE));
        return -1;
    }
    // Settings first: the loop must not read the line before it runs at
    // the right speed.
    m_fd = fd;
    if (SetFormat(format, err) != 0) {
        ::close(fd);
        m_fd = -1;
        return -1;
    }
    m_fd = -1;
    Attach(fd);
    ORVO_TRACE(UnitORVO, INFO, FormatString("cUart: %s open, %s", m_Device.c_str(), format.ToString().c_str()));
    return 0;
}

int cUart::SetFormat(const cUartFormat& format, std::string& err)
{
    err.clear();
    std::string why;
    if (!format.IsValid(&why)) {
        err = "cUart: " + m_Device + ": " + why;
        return -1;
    }
    termios t;
    std::memset(&t, 0, sizeof t);
    if (::tcgetattr(m_fd, &t) != 0) {
        err = FormatString("cUart: %s: tcgetattr failed : %s", m_Device.c_str(), strerror(errno));
        return -1;
    }
    format.Apply(t);
    if (::tcsetattr(m_fd, TCSANOW, &t) != 0) {
        err = FormatString("cUart: %s: tcsetattr failed : %s", m_Device.c_str(), strerror(errno));
        return -1;
    }
    // RS232 only has to turn an RS485 mode off where the driver has one.
    if (SetRs485(m_fd, format) != 0 && format.mode == UART_RS485) {
        err = FormatString("cUart: %s: RS485 mode not supported by the driver : %s", m_Device.c_str(),
                           strerror(errno));
        return -1;
    }
    m_Format = format;
    return 0;
}

void cUart::Report(unsigned long type, const void* data, int size)
{
    cMsg msg(type, this, GetStatem());
    if (size >= 0)
        msg.GetRecord().AppendDataPar("DATA", data, size);
    OnMsg(msg);
}

void cUart::OnClose()
{
    Report(MSG_SOCKET_CLOSED);
}

int cUart::OnRead(const void* data, int size)
{
    Report(MSG_SOCKET_DATA, data, size < 0 ? 0 : size);
    return size;
}

void cUart::OnWrite()
{
    Flush();
    if (m_Queue.empty() && m_fd >= 0 && GetWriteReadyMsg() != 0)
        Report(MSG_SOCKET_WRITABLE);
}

void cUart::Close()
{
    m_Queue.clear();
    if (m_fd > 0)
        ::close(m_fd);
    cChannel::Close();
}

int cUart::Write(const void* data, int size)
{
    if (m_fd < 0 || size < 0) {
        errno = EBADF;
        return -1;
    }
    if (m_Queue.size() + static_cast<size_t>(size) > static_cast<size_t>(kMaxQueued)) {
        errno = ENOBUFS;
        return -1;
    }
    m_Queue.append(static_cast<const char*>(data), static_cast<size_t>(size));
    Flush();
    return size;
}

void cUart::Flush()
{
    while (!m_Queue.empty() && m_fd >= 0) {
        const int n = rawWrite(m_Queue.data(), static_cast<int>(m_Queue.size()));
        if (n > 0) {
            m_Queue.erase(0, static_cast<size_t>(n));
            continue;
        }
        if (n < 0 && !WouldBlock(errno)) {
            ORVO_TRACE(UnitORVO, ERROR,
                       FormatString("cUart: %s: write failed : %s", m_Device.c_str(), strerror(errno)));
            OnClose();
            Close();
            return;
        }
        break;
    }
    SetWritePending(!m_Queue.empty());
    UpdateSelect();
}

int cUart::rawWrite(const void* data, int size)
{
    return static_cast<int>(::write(m_fd, data, static_cast<size_t>(size)));
}

int cUart::rawRead(void* buffer, int size)
{
    const int n = static_cast<int>(::read(m_fd, buffer, static_cast<size_t>(size)));
    if (n < 0 && WouldBlock(errno)) {
        SetReadRetry();
        return 0;
    }
    return n;
}

int cUart::Send(cMsg& msg)
{
    cRecordPar data = msg.GetRecord().GetFirstPar("DATA");
    if (!data.IsValid())
        return -1;
    return Write(data.GetData(), data.GetSize());
}

}  // namespace orvo
