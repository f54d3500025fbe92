// The configuration's keys: one table for each kind of object, each row with the function that
// takes its value. What a word may be is libvellb's, as for the command line; what objects must be
// to one another is in sense.cpp. Reads files; keeps no state.
#include "vellcfg/reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fmt/format.h>
#include <memory>
#include <tuple>

#include "schema.h"
#include "sense.h"
#include "vellb/address.h"
#include "vellb/names.h"

namespace vellcfg
{

namespace
{

namespace fs = std::filesystem;

using vellb::bad_word;

// --- Values --------------------------------------------------------------------------------------

lb_u32_t take_record_time(const std::string &word)
{
    const lb_u32_t seconds = vellb::take_seconds(word);
    if (seconds < LEAST_TIME_S) {
        throw bad_word(fmt::format("'{}' is less than {}s, for which the default would be taken",
                                   word, LEAST_TIME_S),
                       word);
    }
    return seconds;
}

lb_u16_t take_port(const std::string &word)
{
    return static_cast<lb_u16_t>(vellb::take_number(word, 1, 65535));
}

lb_u8_t take_code(const std::string &word, std::span<const vellb::named_value> table)
{
    return static_cast<lb_u8_t>(vellb::take_name(word, table));
}

lbip_addr_t take_version(const std::string &word, lb_u8_t version, const char *other)
{
    const lbip_addr_t address = vellb::take_address(word);
    if (address.version != version) {
        throw bad_word(
            fmt::format("'{}' is an IPv{} address; that one is '{}'", word, address.version, other),
            word);
    }
    return address;
}

template <class T, lbip_addr_t T::*FIELD> void take_address(context &to, T &into, const node &value)
{
    to.word(value, [&](const std::string &word) { into.*FIELD = vellb::take_address(word); });
}

template <class T, std::string T::*FIELD, size_t SIZE>
void take_text(context &to, T &into, const node &value)
{
    to.word(value,
            [&](const std::string &word) { into.*FIELD = vellb::take_text(word, SIZE - 1); });
}

template <class T, bool T::*FIELD> void take_switch(context &to, T &into, const node &value)
{
    to.word(value, [&](const std::string &word) { into.*FIELD = vellb::take_switch(word); });
}

// --- Servers and rules ---------------------------------------------------------------------------

constexpr row_t<server> SERVER[] = {
    {"address", take_address<server, &server::address>, true},
    {"id", take_text<server, &server::id, sizeof(lbsrv_setable_t::serverid)>},
    {"weight",
     [](context &to, server &into, const node &value) {
         to.word(value, [&](const std::string &word) {
             into.weight = static_cast<lb_u16_t>(vellb::take_number(word, 0, 65535));
         });
     }},
    {"forward",
     [](context &to, server &into, const node &value) {
         to.word(value, [&](const std::string &word) {
             into.forward = static_cast<forward_e>(vellb::take_name(word, vellb::forwardings()));
         });
     }},
    {"return-address", take_address<server, &server::return_address>},
    {"router-address", take_address<server, &server::router_address>},
    {"encap-source", take_address<server, &server::encap_source>},
    {"encap-mtu",
     [](context &to, server &into, const node &value) {
         to.word(value,
                 [&](const std::string &word) { into.encap_mtu = vellb::take_encap_mtu(word); });
     }},
    {"sticky", take_switch<server, &server::sticky>},
    {"quiesced", take_switch<server, &server::quiesced>},
};

constexpr row_t<rule> RULE[] = {
    {"number",
     [](context &to, rule &into, const node &value) {
         to.word(value, [&](const std::string &word) { into.number = take_port(word); });
     },
     true},
    {"type",
     [](context &to, rule &into, const node &value) {
         to.word(value, [&](const std::string &word) {
             into.type = take_code(word, vellb::rule_types());
         });
     }},
    {"range",
     [](context &to, rule &into, const node &value) {
         to.word(value, [&](const std::string &word) {
             vellb::take_range(word, into.first, into.last);
             into.ranged = true;
         });
     }},
    {"name", take_text<rule, &rule::name, sizeof(lbrul_setable_t::name)>},
    {"use-servers",
     [](context &to, rule &into, const node &value) {
         to.list(value, "[10.0.0.11, 10.0.0.12]", [&](const node &item) {
             to.word(item, [&](const std::string &word) {
                 into.useservers.push_back({to.at(item), vellb::take_address(word)});
             });
         });
     }},
};

// --- Ports and clusters --------------------------------------------------------------------------

void read_server(context &to, port &into, const node &item)
{
    server fresh;
    fresh.at = to.at(item);
    if (item.kind == kind_e::WORD) { // an address is a server with all defaults
        to.word(item, [&](const std::string &word) { fresh.address = vellb::take_address(word); });
    } else {
        read_map<server>(to, item, fresh, "a server", SERVER);
    }
    into.servers.push_back(std::move(fresh));
}

template <lb_u8_t port::*FIELD> void take_algorithm(context &to, port &into, const node &value)
{
    to.word(value,
            [&](const std::string &word) { into.*FIELD = take_code(word, vellb::algorithms()); });
}

template <std::optional<lb_u32_t> port::*FIELD>
void take_time(context &to, port &into, const node &value)
{
    to.word(value, [&](const std::string &word) { into.*FIELD = take_record_time(word); });
}

constexpr row_t<port> PORT[] = {
    {"port",
     [](context &to, port &into, const node &value) {
         to.word(value, [&](const std::string &word) { into.number = take_port(word); });
     },
     true},
    {"algorithm", take_algorithm<&port::algorithm>},
    {"udp-algorithm", take_algorithm<&port::udp_algorithm>},
    {"crossport",
     [](context &to, port &into, const node &value) {
         into.crossport_at = to.at(value);
         to.word(value, [&](const std::string &word) { into.crossport = take_port(word); });
     }},
    {"stale-timeout", take_time<&port::stale_timeout_s>},
    {"sticky-time", take_time<&port::sticky_time_s>},
    {"reset", take_switch<port, &port::reset>},
    {"replication",
     [](context &to, port &into, const node &value) {
         to.word(value, [&](const std::string &word) {
             into.replication = take_code(word, vellb::ha_replications());
         });
     }},
    {"servers",
     [](context &to, port &into, const node &value) {
         to.list(value, "[10.0.0.11, 10.0.0.12]",
                 [&](const node &item) { read_server(to, into, item); });
     }},
    {"rules",
     [](context &to, port &into, const node &value) {
         to.list(value, "[{number: 10, use-servers: [10.0.0.11]}]", [&](const node &item) {
             rule fresh;
             fresh.at = to.at(item);
             read_map<rule>(to, item, fresh, "a rule", RULE);
             into.rules.push_back(std::move(fresh));
         });
     }},
};

constexpr row_t<cluster> CLUSTER[] = {
    {"address", take_address<cluster, &cluster::address>, true},
    {"id", take_text<cluster, &cluster::id, sizeof(lbclu_setable_t::clusterid)>},
    {"ports",
     [](context &to, cluster &into, const node &value) {
         to.list(value, "[{port: 80, servers: [10.0.0.11]}]", [&](const node &item) {
             port fresh;
             fresh.at = to.at(item);
             read_map<port>(to, item, fresh, "a port", PORT);
             into.ports.push_back(std::move(fresh));
         });
     }},
};

// --- The executor and high availability ----------------------------------------------------------

constexpr lb_u64_t DEFAULT_LOG = 0x200; // failures: what the daemon starts with

std::string joined(context &to, const node &value)
{
    std::string text;
    to.list(value, "[failures, events]", [&](const node &item) {
        to.word(item, [&](const std::string &word) { text += (text.empty() ? "" : ",") + word; });
    });
    return text;
}

constexpr row_t<executor> EXECUTOR[] = {
    {"client-gateway",
     [](context &to, executor &into, const node &value) {
         to.word(value, [&](const std::string &word) {
             into.client_gateway = take_version(word, 4, "client-gateway-ipv6");
         });
     }},
    {"client-gateway-ipv6",
     [](context &to, executor &into, const node &value) {
         to.word(value, [&](const std::string &word) {
             into.client_gateway_ipv6 = take_version(word, 6, "client-gateway");
         });
     }},
    {"own-address", take_address<executor, &executor::own_address>},
    {"log-mask",
     [](context &to, executor &into, const node &value) {
         node words = value;
         if (value.kind == kind_e::LIST) {
             words.kind = kind_e::WORD;
             words.word = joined(to, value);
         }
         to.word(words, [&](const std::string &word) {
             into.log_mask = vellb::take_mask(word, DEFAULT_LOG);
         });
     }},
};

constexpr row_t<heartbeat> HEARTBEAT[] = {
    {"local", take_address<heartbeat, &heartbeat::local>, true},
    {"partner", take_address<heartbeat, &heartbeat::partner>, true},
};

lb_u8_t take_timeout(const std::string &word)
{
    const lb_u32_t seconds = vellb::take_seconds(word);
    if (seconds < LBHA_TIMEOUT_MINIMUM || seconds > LBHA_TIMEOUT_MAXIMUM) {
        throw bad_word(fmt::format("'{}' is not from 1s to 30s", word), word);
    }
    return static_cast<lb_u8_t>(seconds);
}

template <lb_u8_t ha::*FIELD, lb_u8_t TAKE(const std::string &)>
void take_setting(context &to, ha &into, const node &value)
{
    to.word(value, [&](const std::string &word) { into.*FIELD = TAKE(word); });
}

// Names are offered without those that only the daemon uses.
lb_u8_t take_role(const std::string &word)
{
    return take_code(word, vellb::ha_roles().subspan(LBHA_ROLE_SOLO));
}
lb_u8_t take_takeover(const std::string &word)
{
    return take_code(word, vellb::ha_takeovers().subspan(LBHA_TAKEOVERSTRATEGY_MANUAL, 2));
}
lb_u8_t take_replication(const std::string &word)
{
    const lb_u8_t value = take_code(word, vellb::ha_replications());
    if (value > LBHA_REPLICATIONSTRATEGY_CRREP) {
        throw bad_word(fmt::format("'{}' is a setting of ports only: put it under the port", word),
                       word);
    }
    return value;
}

constexpr row_t<ha> HA[] = {
    {"role", take_setting<&ha::role, take_role>, true},
    {"takeover", take_setting<&ha::takeover, take_takeover>},
    {"timeout", take_setting<&ha::timeout_s, take_timeout>},
    {"replication", take_setting<&ha::replication, take_replication>},
    {"port",
     [](context &to, ha &into, const node &value) {
         to.word(value, [&](const std::string &word) { into.port = take_port(word); });
     }},
    {"reach",
     [](context &to, ha &into, const node &value) {
         to.list(value, "[10.0.0.1]", [&](const node &item) {
             to.word(item, [&](const std::string &word) {
                 into.reach.push_back(vellb::take_address(word));
             });
         });
     }},
    {"heartbeats",
     [](context &to, ha &into, const node &value) {
         to.list(value, "[{local: 10.9.0.1, partner: 10.9.0.2}]", [&](const node &item) {
             heartbeat fresh;
             fresh.at = to.at(item);
             read_map<heartbeat>(to, item, fresh, "a heartbeat", HEARTBEAT);
             into.heartbeats.push_back(fresh);
         });
     }},
};

// --- The whole -----------------------------------------------------------------------------------

// A section that may stand in one file only.
template <class T>
void read_section(context &to, T &into, const node &value, std::string_view name,
                  std::span<const row_t<T>> rows)
{
    if (into.at.line != 0) {
        to.error(to.at(value),
                 fmt::format("'{}' is there twice; the first is at {}", name, place_text(into.at)));
        return;
    }
    into.at = to.at(value);
    read_map<T>(to, value, into, fmt::format("'{}'", name), rows);
}

constexpr row_t<service> SERVICE[] = {
    {"executor",
     [](context &to, service &into, const node &value) {
         read_section<executor>(to, into.executor, value, "executor", EXECUTOR);
     }},
    {"interfaces",
     [](context &to, service &into, const node &value) {
         if (!into.interfaces) {
             into.interfaces.emplace();
         }
         to.list(value, "[eth0, eth1]", [&](const node &item) {
             to.word(item, [&](const std::string &word) {
                 into.interfaces->push_back({to.at(item), vellb::take_interface(word)});
             });
         });
     }},
    {"host-guard",
     [](context &to, service &into, const node &value) {
         if (into.host_guard_at.line != 0) {
             to.error(to.at(value), fmt::format("'host-guard' is there twice; the first is at {}",
                                                place_text(into.host_guard_at)));
             return;
         }
         into.host_guard_at = to.at(value);
         to.word(value,
                 [&](const std::string &word) { into.host_guard = vellb::take_switch(word); });
     }},
    {"ha", [](context &to, service &into,
              const node &value) { read_section<ha>(to, into.ha, value, "ha", HA); }},
    {"clusters",
     [](context &to, service &into, const node &value) {
         to.list(value, "[{address: 10.0.0.100, ports: [...]}]", [&](const node &item) {
             cluster fresh;
             fresh.at = to.at(item);
             read_map<cluster>(to, item, fresh, "a cluster", CLUSTER);
             into.clusters.push_back(std::move(fresh));
         });
     }},
};

// One configuration out of several sources.
class gatherer
{
  public:
    reading result{};

    // Before its errors: their order is that of the names.
    void name(const std::string &source) { names_.push_back(source); }

    void add(const source &from)
    {
        context to(from.name, result.errors);
        try {
            const size_t before = result.errors.size();
            const node_ptr root = parse_document(from.name, from.text, result.errors);
            if (root != nullptr && root->kind != kind_e::NOTHING) {
                read_map<service>(to, *root, result.wanted, "a configuration", SERVICE);
            } else if (result.errors.size() == before) {
                // A file cut off at its beginning must not take everything down.
                to.error(to.at(1, 1), "the file says nothing; if nothing shall be served, write: "
                                      "clusters: []");
            }
        } catch (const enough &) {
            full_ = true;
        }
        for (const auto &[line, column] : to.broken) {
            broken_.emplace(from.name, line, column);
        }
    }
    [[nodiscard]] bool full() const { return full_; }

    // In the order of the files, and within each of its lines.
    reading finished()
    {
        for (finding &each : full_ ? std::vector<finding>{} : nonsense(result.wanted)) {
            if (!broken_.contains(key(each))) {
                result.errors.push_back(std::move(each));
            }
        }
        std::vector<finding> &all = result.errors;
        std::ranges::stable_sort(all, {}, [&](const finding &each) {
            return std::tuple(std::ranges::find(names_, each.at.file), each.at.line,
                              each.at.column);
        });
        // What several aliases stand for is wrong once.
        const auto same = [](const finding &a, const finding &b) {
            return key(a) == key(b) && a.text == b.text;
        };
        all.erase(std::unique(all.begin(), all.end(), same), all.end());
        if (full_ || all.size() >= ERRORS_MOST) {
            all.push_back({all.back().at, "there are more errors: correct these first"});
        }
        return std::move(result);
    }

  private:
    using key_t = std::tuple<std::string, int, int>;
    static key_t key(const finding &each) { return {each.at.file, each.at.line, each.at.column}; }

    std::vector<std::string> names_{};
    std::set<key_t> broken_{};
    bool full_ = false;
};

// Opened so that neither a FIFO nor a terminal can hold it up.
std::error_code load(const std::string &path, std::string &into)
{
    constexpr size_t MOST = size_t{16} << 20;
    const auto failed = [] { return std::error_code(errno, std::generic_category()); };
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) {
        return failed();
    }
    const std::unique_ptr<FILE, int (*)(FILE *)> file(fdopen(fd, "r"), fclose);
    struct stat what {
    };
    if (!file || fstat(fd, &what) != 0) {
        return failed();
    }
    if (S_ISDIR(what.st_mode)) {
        return make_error_code(std::errc::is_a_directory);
    }
    if (!S_ISREG(what.st_mode)) {
        return make_error_code(std::errc::not_supported);
    }
    char piece[65536];
    while (const size_t got = fread(piece, 1, sizeof(piece), file.get())) {
        into.append(piece, got);
        if (into.size() > MOST) {
            return make_error_code(std::errc::file_too_large);
        }
    }
    return ferror(file.get()) == 0 ? std::error_code() : failed();
}

std::string why(const std::error_code &error)
{
    return fmt::format("cannot be read: {}",
                       error == std::errc::not_supported    ? "it is no regular file"
                       : error == std::errc::file_too_large ? "it is longer than any configuration"
                                                            : error.message());
}

// conf.d/*.yaml without the hidden ones: editors keep locks and copies under such names.
std::vector<std::string> more_files(const std::string &path, std::error_code &error)
{
    std::vector<std::string> files;
    const fs::path directory = directories_of(path)[1];
    if (symlink_status(directory, error).type() == fs::file_type::not_found) {
        error.clear();
        return files;
    }
    for (fs::directory_iterator each(directory, error), end; !error && each != end;
         each.increment(error)) {
        const fs::path &file = each->path();
        if (file.extension() == ".yaml" && !file.filename().string().starts_with('.')) {
            files.push_back(file.string());
        }
    }
    std::ranges::sort(files);
    return files;
}

} // namespace

std::vector<std::string> directories_of(const std::string &path)
{
    const fs::path directory = fs::path(path).parent_path();
    return {directory.empty() ? "." : directory.string(), (directory / "conf.d").string()};
}

std::vector<std::string> files_of(const std::string &path)
{
    std::error_code unlisted;
    std::vector<std::string> files = more_files(path, unlisted);
    files.insert(files.begin(), path);
    if (unlisted) { // a change as well
        files.push_back(directories_of(path)[1]);
    }
    return files;
}

reading read_files(const std::string &path)
{
    gatherer all;
    std::error_code unlisted;
    std::vector<std::string> files = more_files(path, unlisted);
    files.insert(files.begin(), path);
    for (const std::string &each : files) {
        source from{each, ""};
        all.name(each);
        if (const std::error_code error = load(each, from.text)) {
            all.result.errors.push_back({{each}, why(error)});
        } else if (!all.full()) {
            all.add(from);
        }
    }
    // Its files would be taken for removed.
    if (unlisted) {
        all.name(directories_of(path)[1]);
        all.result.errors.push_back({{directories_of(path)[1]}, why(unlisted)});
    }
    return all.finished();
}

reading read_texts(const std::vector<source> &sources)
{
    gatherer all;
    for (const source &each : sources) {
        all.name(each.name);
        all.add(each);
    }
    return all.finished();
}

} // namespace vellcfg
