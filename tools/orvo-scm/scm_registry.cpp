// scm_registry.cpp - registered services and their technologies.
#include "scm_registry.h"

#include <algorithm>

namespace orvo_scm {

using orvo::cRecord;
using orvo::cRecordPar;

eRegisterResult cRegistry::Register(const cRecord& request, orvo::cChannel* channel, std::string& why)
{
    tService s;
    const cRecordPar name = request.GetFirstPar("name", orvo::RECORD_TEXT, orvo::RECORD_SEL_TYPE);
    const cRecordPar sap = request.GetFirstPar("sap", orvo::RECORD_TEXT, orvo::RECORD_SEL_TYPE);
    const cRecordPar pid = request.GetFirstPar("pid", orvo::RECORD_SINT, orvo::RECORD_SEL_TYPE);
    const cRecordPar id = request.GetFirstPar("service-id", orvo::RECORD_UUID, orvo::RECORD_SEL_TYPE);
    if (!name.IsValid() || name.GetString().empty() || !id.IsValid() || !id.GetUuid(s.id) ||
        !s.id.IsValid() || !sap.IsValid() || !pid.IsValid()) {
        why = "service-id (uuid), name (text), sap (text) and pid (sint) are required";
        return REGISTER_REFUSED_MALFORMED;
    }
    s.name = name.GetString();
    auto it = m_Services.find(s.name);
    if (it != m_Services.end() && it->second.channel != nullptr) {
        why = "name '" + s.name + "' is registered by pid " + std::to_string(it->second.pid);
        return REGISTER_REFUSED_TAKEN;
    }
    s.sap = sap.GetString();
    s.pid = pid.GetSInt();
    s.channel = channel;
    request.GetFirstPar("config", orvo::RECORD_RECORD, orvo::RECORD_SEL_TYPE).GetRecord(s.registered);
    m_Services[s.name] = s;
    return REGISTER_OK;
}

tService* cRegistry::ByChannel(const orvo::cChannel* channel)
{
    if (channel == nullptr)
        return nullptr;
    for (auto& kv : m_Services)
        if (kv.second.channel == channel)
            return &kv.second;
    return nullptr;
}

tService* cRegistry::ByName(const std::string& name)
{
    auto it = m_Services.find(name);
    return it == m_Services.end() ? nullptr : &it->second;
}

tService* cRegistry::ById(const orvo::cUuid& id)
{
    for (auto& kv : m_Services)
        if (kv.second.id == id)
            return &kv.second;
    return nullptr;
}

tService* cRegistry::ByTech(const std::string& tech, bool reachable)
{
    for (const tOffer& o : m_Offers) {
        tService* s = o.tech == tech ? ByName(o.service) : nullptr;
        if (s != nullptr && s->channel != nullptr && (!reachable || HasSap(*s)))
            return s;
    }
    return nullptr;
}

bool cRegistry::HasSap(const tService& service)
{
    const size_t colon = service.sap.rfind(':');
    if (colon == std::string::npos || colon + 1 >= service.sap.size())
        return false;
    unsigned long port = 0;
    for (size_t i = colon + 1; i < service.sap.size(); ++i) {
        const char c = service.sap[i];
        if (c < '0' || c > '9' || port > 65535)
            return false;
        port = port * 10 + static_cast<unsigned long>(c - '0');
    }
    return port != 0 && port <= 65535;
}

std::vector<std::string> cRegistry::Offer(tService& service, const std::vector<std::string>& techs)
{
    std::vector<std::string> taken, refused;
    for (const std::string& t : techs) {
        if (std::find(taken.begin(), taken.end(), t) != taken.end())
            continue;
        const tService* first = ByTech(t);
        if (first != nullptr && first != &service && !m_bShared)
            refused.push_back(t);
        else
            taken.push_back(t);
    }
    const auto dropped = [&](const tOffer& o) {
        return o.service == service.name && std::find(taken.begin(), taken.end(), o.tech) == taken.end();
    };
    m_Offers.erase(std::remove_if(m_Offers.begin(), m_Offers.end(), dropped), m_Offers.end());
    for (const std::string& t : taken) {
        const auto same = [&](const tOffer& o) { return o.service == service.name && o.tech == t; };
        if (std::none_of(m_Offers.begin(), m_Offers.end(), same))
            m_Offers.push_back(tOffer{t, service.name});
    }
    service.techs = taken;
    return refused;
}

std::string cRegistry::Disconnect(const orvo::cChannel* channel)
{
    tService* s = ByChannel(channel);
    if (s == nullptr)
        return std::string();
    const std::string name = s->name;
    const auto own = [&](const tOffer& o) { return o.service == name; };
    m_Offers.erase(std::remove_if(m_Offers.begin(), m_Offers.end(), own), m_Offers.end());
    m_Services.erase(name);
    return name;
}

std::vector<tService*> cRegistry::Subscribers(unsigned bit)
{
    std::vector<tService*> out;
    for (tService* s : Connected())
        if ((s->notifyMask & bit) != 0)
            out.push_back(s);
    return out;
}

std::vector<tService*> cRegistry::Connected()
{
    std::vector<tService*> out;
    for (auto& kv : m_Services)
        if (kv.second.channel != nullptr)
            out.push_back(&kv.second);
    return out;
}

std::vector<const tService*> cRegistry::All() const
{
    std::vector<const tService*> out;
    for (const auto& kv : m_Services)
        out.push_back(&kv.second);
    return out;
}

cRecord cRegistry::InfoRecord(const tService& service)
{
    cRecord tech, info, out;
    for (const std::string& t : service.techs)
        tech.AppendTextPar("service-tech", t);
    info.AppendUuidPar("service-id", service.id);
    info.AppendTextPar("name", service.name);
    info.AppendRecordPar("tech", tech);
    info.AppendSIntPar("pid", service.pid);
    info.AppendTextPar("sap", service.sap);
    out.AppendRecordPar("service", info);
    return out;
}

}  // namespace orvo_scm
