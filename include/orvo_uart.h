// orvo_uart.h - cUart, a channel over a serial device (termios), and
// cUartFormat, its line settings.
//
// A cUart is watched by its service's select loop like a socket:
//  - bytes that arrive are reported as message 0x3001 with "DATA" (the
//    bytes, as many as one read gave), handed to OnMsg (the state machine,
//    or the service's queue);
//  - Write queues bytes (up to kMaxQueued) and writes what the line takes
//    at once; the rest goes out as the device becomes writable. When such
//    a flush on writability (or a call of OnWrite) leaves the queue empty
//    and the write-ready flag is set (SetWriteReadyMsg; 0 after
//    construction), 0x3002 is reported;
//  - the line ending (end of file, or the device failing, as a USB adapter
//    that is pulled or a pseudo-terminal whose other side closed) is
//    reported as 0x4003 and the device is closed.
// OnRead and OnWrite may also be called from outside the loop's readiness
// (cProxySocket feeds bytes received from the network through OnRead as if
// they came from the line, and drives OnWrite).
//
// Modes: RS232 is a plain termios set-up. RS485 additionally switches the
// driver into RS485 mode (the kernel's TIOCSRS485 request: RTS high while
// sending, low afterwards, with the given delays); a driver without RS485
// support makes Open/SetFormat fail with a text saying so. RS232 turns a
// driver's RS485 mode off where it has one.
//
// The device is put in raw mode (no echo, no line editing, no character
// translation, no signals), receiver on, modem control lines ignored
// (CLOCAL).
//
// Thread safety: as every channel, used from its service's thread only.
#pragma once

#include <termios.h>

#include <string>

#include "orvo_channel.h"

namespace orvo {

enum eUartParity {
    UART_PARITY_NONE = 0,
    UART_PARITY_ODD = 1,
    UART_PARITY_EVEN = 2
};

enum eUartFlow {
    UART_FLOW_NONE = 0,
    UART_FLOW_RTSCTS = 1,   // hardware handshake
    UART_FLOW_XONXOFF = 2   // software handshake
};

enum eUartMode {
    UART_RS232 = 0,
    UART_RS485 = 1
};

// Line settings; a plain value.
class ORVO_API cUartFormat {
public:
    explicit cUartFormat(unsigned long baud = 9600, int dataBits = 8, eUartParity parity = UART_PARITY_NONE,
                         int stopBits = 1, eUartFlow flow = UART_FLOW_NONE, eUartMode mode = UART_RS232);

    // Whether the settings can be applied: a baud rate this system knows
    // (50 to 115200, and above where the kernel defines it), 5 to 8 data
    // bits, 1 or 2 stop bits. why receives the reason when not.
    bool IsValid(std::string* why = nullptr) const;
    // Puts t in raw mode with these settings (speed, character size,
    // parity, stop bits, flow control, receiver on, CLOCAL, VMIN 1, VTIME
    // 0), keeping t's other fields. False (t unchanged) when not IsValid().
    bool Apply(termios& t) const;
    // "9600 8N1 none RS232" (parity N/O/E; flow none/rtscts/xonxoff).
    std::string ToString() const;
    // Whether baud is one of the system's standard rates.
    static bool IsKnownBaud(unsigned long baud);

    unsigned long baud;
    int dataBits;
    eUartParity parity;
    int stopBits;
    eUartFlow flow;
    eUartMode mode;
    unsigned rs485DelayBeforeSend;   // ms RTS is raised before sending (RS485)
    unsigned rs485DelayAfterSend;    // ms RTS stays raised after sending (RS485)
};

class ORVO_API cUart : public cChannel {
public:
    // Most bytes Write keeps queued for a slow line.
    static const int kMaxQueued = 65536;

    // A closed port of service (watches it) and statem (receives its
    // messages); neither owned, either may be null.
    cUart(cService* service, cStateMachine* statem);
    // Close().
    ~cUart() override;

    // Opens device (read/write, no controlling terminal), applies format
    // and lets the loop watch it. 0, or -1 with err (the device stays
    // closed): "cUart: open '<device>' failed : <strerror>", the invalid
    // format's reason, or SetFormat's text. A port already open is closed
    // first.
    int Open(const char* device, const cUartFormat& format, std::string& err);
    // Applies format to the open device. 0, or -1 with err:
    //   "cUart: <device>: <why the format is invalid>",
    //   "cUart: <device>: tcsetattr failed : <strerror>",
    //   "cUart: <device>: RS485 mode not supported by the driver : <strerror>".
    int SetFormat(const cUartFormat& format, std::string& err);
    const cUartFormat& GetFormat() const { return m_Format; }
    const std::string& GetDevice() const { return m_Device; }
    // Bytes queued and not yet written.
    int GetQueued() const { return static_cast<int>(m_Queue.size()); }

    // 0x4003 to OnMsg.
    void OnClose() override;
    // 0x3001 with "DATA" (size bytes, also 0) to OnMsg; returns size.
    int OnRead(const void* data, int size) override;
    // Writes queued bytes the line takes; when none remain and the
    // write-ready flag is set, 0x3002 to OnMsg.
    void OnWrite() override;
    // Closes the device (descriptor above 0) and drops queued bytes.
    void Close() override;
    // Queues size bytes and writes what the line takes now. Returns size,
    // or -1 with errno EBADF (not open) or ENOBUFS (queue would exceed
    // kMaxQueued; nothing queued).
    int Write(const void* data, int size) override;
    // write(); read() (a read that would block marks a retry and gives 0).
    int rawWrite(const void* data, int size) override;
    int rawRead(void* buffer, int size) override;
    // Writes the "DATA" element of msg's record (Write's result); -1 when
    // it has none.
    int Send(cMsg& msg) override;

protected:
    // Writes from the queue until it is empty or the line is full, then
    // asks for write readiness while bytes remain. A write error other than
    // "would block" ends the line (OnClose, Close).
    void Flush();
    // Report of type to OnMsg with this channel and its state machine.
    void Report(unsigned long type, const void* data = nullptr, int size = -1);

    cUartFormat m_Format;   // settings in force
    std::string m_Device;   // path given to Open
    std::string m_Queue;    // bytes waiting for the line
};

}  // namespace orvo
