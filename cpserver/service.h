// The service: keeps the daemon what the files say, whatever changes.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "filewatch.h"
#include "goal.h"
#include "guard.h"
#include "instance.h"
#include "log.h"
#include "loop.h"
#include "options.h"
#include "vellb/client.h"
#include "vellcfg/apply.h"
#include "vellhost/ifsync.h"

namespace cpserver
{

// Says before each exchange that time goes on: a whole state is thousands of them.
class attentive_client : public vellb::client
{
  public:
    attentive_client(std::string path, std::chrono::milliseconds timeout,
                     std::function<void()> before)
        : client(std::move(path), timeout), before_(std::move(before))
    {
    }
    void exchange(lbcmd_buf_t &buffer) const override
    {
        before_();
        client::exchange(buffer);
    }

  private:
    std::function<void()> before_;
};

// Level-triggered: whatever happens only says that it is time to look. A pass compares the whole
// state, or the interfaces alone, with what is wanted and carries the difference out. From one pass
// to the next only that is remembered which the daemon does not tell: the interfaces' indexes.
class service
{
  public:
    explicit service(const options &asked);
    service(const service &) = delete;
    service &operator=(const service &) = delete;

    // Until a signal says stop; an exit status.
    int run();

  private:
    enum class scope_e { INTERFACES, EVERYTHING };
    using milliseconds_t = std::chrono::milliseconds;
    using monotonic_t = std::chrono::steady_clock;

    bool read_configuration();
    void watch_directories();
    void look_at_files();
    // Of a name in a directory that is watched: may what happens to it change the configuration?
    [[nodiscard]] bool concerns_us(const std::string &name) const;

    void on_signals();
    // In the midst of long work: signals are heeded, the watchdog is fed.
    void breathe();
    void relay_takeover();
    void on_files();
    void on_socket();
    void on_tick();
    void poll_daemon();

    // A pass is wanted, after `delay` at the latest.
    void wish(const std::string &why, scope_e scope, milliseconds_t delay);
    void pass();
    bool look_and_act(scope_e scope, const std::string &why);
    bool make_all(const vellcfg::host_view &host, const std::vector<std::string> &renewed,
                  const std::string &why);
    // Names under which the daemon was told of other interfaces than those that are there now.
    [[nodiscard]] std::vector<std::string> renewed(const vellcfg::host_view &host) const;
    bool carry_out(const vellcfg::plan &plan, const std::string &why);
    // Is this another process than the last time?
    bool meet(const lbexe_getable_t &readings);
    void keep_guard(const std::vector<vellb::cluster> &also);
    void drop_guard();
    void say_status();

    options asked_;
    instance only_one_;
    vellb::client daemon_;
    attentive_client reader_; // the same; throws vellb::fault to end the reading when it stops
    loop loop_{};
    descriptor signals_;
    directory_watch files_{false};
    directory_watch sockets_{true};
    vellhost::change_watch links_{};
    timer files_timer_;
    timer pass_timer_;
    timer tick_;
    timer watchdog_;
    monotonic_t::time_point fed_{};
    unsigned ticks_ = 0;

    goal goal_{};
    std::string signature_{};      // of what was read last
    std::string seen_signature_{}; // at the last tick
    complaint bad_file_{};
    complaint bad_daemon_{};
    complaint bad_guard_{};
    complaint bad_version_{level_e::WARNING};
    std::vector<std::string> warned_of_{}; // at the last pass, sorted
    std::unique_ptr<guard> guard_{};
    bool swept_ = false; // what an earlier cpserver left of its guard is gone

    // The pass that is wanted.
    std::vector<std::string> reasons_{};
    scope_e scope_ = scope_e::INTERFACES;
    monotonic_t::time_point due_{};
    milliseconds_t backoff_{};
    monotonic_t::time_point next_check_{};

    std::optional<lb_timeval_t> start_time_{}; // the daemon's, as far as it is known
    std::map<std::string, int> indexes_{};     // of the interfaces that it was told of
    bool reachable_ = false;
    bool ready_ = false; // as the service manager was told
    bool reloading_ = false;
    bool stopping_ = false;
};

} // namespace cpserver
