// orvo_proxysocket.h - cProxySocket: a message socket that drives a serial
// port from the network.
//
// Messages received on the socket:
//   0x80008 (MSG_SERIAL_DATA)      the bytes of its "DATA" element go to the
//                                  serial port's OnRead as if they had come
//                                  from the line (no "DATA": zero bytes);
//   0x80009 (MSG_SERIAL_WRITABLE)  the serial port's OnWrite is called;
//   anything else, the socket's own events (connected, closed, TLS
//   failures) included, is dropped: nothing reaches the service.
// Everything else (connecting, framing, sending) is cMsgTcpSocket's.
//
// The serial port is not owned and must outlive the socket; both belong to
// the serial port's service and its thread.
#pragma once

#include "orvo_msgsocket.h"

namespace orvo {

class cUart;

class ORVO_API cProxySocket : public cMsgTcpSocket {
public:
    // A message socket of uart's service, no state machine.
    explicit cProxySocket(cUart* uart);
    ~cProxySocket() override;

    void OnMsg(cMsg& msg) override;

    cUart* GetUart() const { return m_pUart; }

protected:
    cUart* m_pUart;   // not owned
};

}  // namespace orvo
