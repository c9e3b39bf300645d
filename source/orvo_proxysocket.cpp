#define ORVO_SOURCE "orvo_proxysocket"
#include "orvo_proxysocket.h"

#include "orvo_msgtypes.h"
#include "orvo_uart.h"

namespace orvo {

cProxySocket::cProxySocket(cUart* uart) : cMsgTcpSocket(uart->GetService(), nullptr), m_pUart(uart)
{
}

cProxySocket::~cProxySocket() = default;

void cProxySocket::OnMsg(cMsg& msg)
{
    if (msg.GetType() == MSG_SERIAL_DATA) {
        cRecordPar data = msg.GetRecord().GetFirstPar("DATA");
        if (data.IsValid())
            m_pUart->OnRead(data.GetData(), data.GetSize());
        else
            m_pUart->OnRead("", 0);
    } else if (msg.GetType() == MSG_SERIAL_WRITABLE) {
        m_pUart->OnWrite();
    }
}

}  // namespace orvo
