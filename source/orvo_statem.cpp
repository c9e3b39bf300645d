#define ORVO_SOURCE "orvo_statem"
#include "orvo_statem.h"

#include "orvo_handle.h"
#include "orvo_service.h"
#include "orvo_trace.h"
#include "tesk.h"

namespace orvo {

cStateMachine::cStateMachine(cService* service, const std::string& name)
    : m_pStateObj(this),
      m_State(&cStateMachine::state_init),
      m_StateName("init"),
      m_Busy(0),
      m_pService(service),
      m_Handle(0),
      m_pAlive(nullptr)
{
    SetObjName(name);
    m_Handle = HandleCreate(this, HANDLE_STATEM);
}

cStateMachine::~cStateMachine()
{
    // A drain further up the stack (the handler deleted its own machine)
    // must not touch the object again.
    if (m_pAlive != nullptr)
        *m_pAlive = false;
    HandleRelease(m_Handle);
    if (m_pService != nullptr)
        m_pService->RemoveMsgsByObject(this);
    m_Pending.clear();
}

std::string cStateMachine::ToString() const
{
    return cObject::ToString() + "::" + m_StateName;
}

void cStateMachine::Run()
{
    cMsg msg(kMsgStart);
    msg.SetStatem(this);
    OnMsg(msg);
}

void cStateMachine::OnMsg(cMsg& msg)
{
    m_Pending.push_front(msg);
    if (m_Busy)
        return;

    bool alive = true;
    m_pAlive = &alive;
    m_Busy = 1;
    while (!m_Pending.empty()) {
        cMsg copy(m_Pending.back());
        m_Pending.pop_back();
        if (state_prestate(copy) == 1) {
            if (!alive)
                return;
            continue;
        }
        if (!alive)
            return;
        // The handler in force now: a state change made while handling the
        // previous message applies to this one.
        cStateMachine* obj = m_pStateObj;
        tStateFn fn = m_State;
        (obj->*fn)(copy);
        if (!alive)
            return;
    }
    m_Busy = 0;
    m_pAlive = nullptr;
}

int cStateMachine::state_prestate(cMsg&)
{
    return 0;
}

int cStateMachine::state_init(cMsg&)
{
    return 0;
}

void cStateMachine::Monitor(cMsg& msg)
{
    ORVO_TRACE(UnitORVO, INFO,
               FormatString("%s::%s <-- %s", GetObjName().c_str(), m_StateName,
                            GetMsgTypeTxt(msg.GetType())));
}

void cStateMachine::SetStateOn(cStateMachine* object, tStateFn fn, const char* name)
{
    ORVO_ASSERT(fn != nullptr);
    m_pStateObj = object != nullptr ? object : this;
    m_State = fn;
    m_StateName = name != nullptr ? name : "";
}

}  // namespace orvo
