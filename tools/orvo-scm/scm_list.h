// scm_list.h - the request and answer between orvo-ctl and orvo-scm for the
// registered services (docs/orvo-scm.md).
#pragma once

namespace orvo_scm {

// Empty request; answered on the same connection with the same tid.
const unsigned long kMsgServiceListRequest = 0x10200;
// One "service" sub-record per registered service: "service-id", "name",
// "tech" (one "service-tech" per technology), "pid", "sap", "state" ("connected" or
// "disconnected").
const unsigned long kMsgServiceListAnswer = 0x10201;

}  // namespace orvo_scm
