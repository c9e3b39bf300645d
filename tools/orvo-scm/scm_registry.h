// scm_registry.h - the services registered with orvo-scm, the technologies
// they offer and who asked for notifications.
#pragma once

#include <map>
#include <string>
#include <vector>

#include <orvo_record.h>
#include <orvo_uuid.h>

namespace orvo {
class cChannel;
}

namespace orvo_scm {

struct tService {
    std::string name;
    orvo::cUuid id;
    std::string sap;
    int pid = 0;
    orvo::cChannel* channel = nullptr;   // null once its connection closed
    orvo::cRecord registered;            // the "config" it registered with
    std::vector<std::string> techs;      // offers taken, in the order announced
    unsigned notifyMask = 0;             // from its notification request
};

// Mask bit of the technology notifications ("add-technology").
const unsigned kNotifyTechnology = 2;

enum eRegisterResult {
    REGISTER_OK = 0,
    REGISTER_REFUSED_MALFORMED = 1,   // reason 1: keys missing or of the wrong type
    REGISTER_REFUSED_TAKEN = 2,       // reason 2: the name is registered and connected
    REGISTER_REFUSED_ORIGIN = 3       // reason 3: not a process orvo-scm started (-only-children)
};

class cRegistry {
public:
    // shared: a technology may be offered by several connected services
    // (look-ups still answer the first); otherwise a second offer is refused.
    explicit cRegistry(bool shared = false) : m_bShared(shared) {}

    // Registers the service a 0x10000 record describes, reached over
    // channel. A name stays taken while its connection is open. why gets the
    // sub-reason text of a refusal.
    eRegisterResult Register(const orvo::cRecord& request, orvo::cChannel* channel, std::string& why);

    tService* ByChannel(const orvo::cChannel* channel);
    tService* ByName(const std::string& name);
    tService* ById(const orvo::cUuid& id);
    // The connected service that offered tech first. With reachable, only
    // a service with a sap (see HasSap): what a look-up hands out.
    tService* ByTech(const std::string& tech, bool reachable = false);
    // Whether the service registered a sap others can connect to: "ip:port"
    // with a port other than 0. A service whose sap could not be bound
    // registers port 0 (include/orvo_scm.h, cScmService::Init).
    static bool HasSap(const tService& service);

    // Takes the technologies service offers (replacing its earlier offer; a
    // technology it offered before keeps its place in the order). Returns
    // the ones refused because another connected service offers them.
    std::vector<std::string> Offer(tService& service, const std::vector<std::string>& techs);

    // Forgets the service on channel, its registration and its offers: a
    // service that connects again registers anew. Returns its name (empty
    // when channel belonged to no service).
    std::string Disconnect(const orvo::cChannel* channel);

    // Connected services whose notification mask has bit.
    std::vector<tService*> Subscribers(unsigned bit);
    std::vector<tService*> Connected();
    // Every service registered since the start, connected or not, by name.
    std::vector<const tService*> All() const;

    // The record of a service information answer: a sub-record "service"
    // with "service-id", "name", "tech" (one "service-tech" per technology),
    // "pid" and "sap".
    static orvo::cRecord InfoRecord(const tService& service);

private:
    struct tOffer {
        std::string tech;
        std::string service;
    };
    std::map<std::string, tService> m_Services;   // by name
    std::vector<tOffer> m_Offers;                 // in the order offered
    bool m_bShared;
};

}  // namespace orvo_scm
