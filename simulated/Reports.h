// What the simulated iscsiadm prints about sessions and node records, to the letter of the real one.
#pragma once

#include "simulated/Devices.h"

namespace simulated
{

// The sessions in the tool's order, that of their identifiers as text: 1, 10, 2.
std::vector<Session> InReportOrder(std::vector<Session> sessions);

// "target: IQN, portal: ADDRESS,PORT", as the tool's messages name a record or a session.
std::string TargetAndPortal(const std::string& iqn, const PortalAddress& at);

// "ADDRESS:PORT,TPGT IQN", as the tool's lists name them.
std::string ListedAs(const PortalAddress& at, int tpgt, const std::string& iqn);

// `-m session`: a line a session.
std::string SessionList(const Scene& scene, const std::vector<Session>& sessions);

// `-m session -P 1` to `-P 3`.
std::string DetailedReport(const Scene& scene, const State& state, const std::vector<Session>& sessions,
                           int level);

// `-m session -i` of the oldest versions.
std::string ShortReport(const Scene& scene, const State& state, const std::vector<Session>& sessions);

// Every setting of a record, secrets masked.
std::string RecordReport(const Scene& scene, const NodeRecord& record);

// Whether records have a setting of this name.
bool IsSetting(const std::string& name);

} // namespace simulated
