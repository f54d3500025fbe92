// Who carries out what. Each prints its result and throws on failure: vellb::refused, vellb::fault,
// declined or usage_error.
#pragma once

#include "session.h"

namespace vellbctl
{

void executor_set(session &s);
void executor_stop(session &s);
void cluster_add(session &s);
void cluster_set(session &s);
void cluster_rm(session &s);
void port_add(session &s);
void port_set(session &s);
void port_rm(session &s);
void server_add(session &s);
void server_set(session &s);
void server_rm(session &s);

void ha_set(session &s);
void ha_takeover(session &s);
void heartbeat_add(session &s);
void heartbeat_rm(session &s);

void rule_add(session &s);
void rule_set(session &s);
void rule_rm(session &s);
void useserver_add(session &s);
void useserver_rm(session &s);

void interface_add(session &s);
void interface_set(session &s);
void interface_rm(session &s);
void interface_sync(session &s);
void address_add(session &s);
void address_set(session &s);
void address_rm(session &s);

void file_check(session &s);
void file_diff(session &s);
void file_apply(session &s);
void file_export(session &s);

void show_all(session &s);
void show_executor(session &s);
void show_ha(session &s);
void show_heartbeats(session &s);
void show_clusters(session &s);
void show_ports(session &s);
void show_servers(session &s);
void show_rules(session &s);
void show_useservers(session &s);
void show_interfaces(session &s);
void show_addresses(session &s);
void logmask_decode(session &s);
void logmask_names(session &s);

// Warns of settings of the port asked for that will surprise. Never fails.
void look_at_port(session &s);

} // namespace vellbctl
