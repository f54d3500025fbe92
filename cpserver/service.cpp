// One thread. Signals come through a descriptor, so nothing is ever interrupted. What blocks is an
// exchange with the daemon (for seconds at most) and the reading of files and of the host.
#include "service.h"

#include <sys/signalfd.h>
#include <system_error>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fmt/format.h>
#include <utility>

#include "notify.h"
#include "vellb/command.h"
#include "vellcfg/reader.h"

namespace cpserver
{

namespace
{

using namespace std::chrono_literals;

constexpr auto EXCHANGE_TIMEOUT = 3s; // a longer silence is a failure, and is tried again
constexpr auto FILES_SETTLE = 100ms;  // several files are often replaced together
constexpr auto LINKS_SETTLE = 100ms;
constexpr auto TICK = 1s;
constexpr auto FEED_PERIOD = 100ms;
constexpr unsigned TICKS_OF_GUARD = 5;
constexpr auto CHECK_PERIOD = 30000ms;
constexpr int CHECK_SHARE = 20; // at most this part of the time is spent on looking
constexpr auto BACKOFF_FIRST = 50ms;
constexpr auto BACKOFF_ABSENT = 2000ms;
constexpr auto BACKOFF_REFUSED = 30000ms;
constexpr size_t STEPS_SHOWN = 200;
constexpr const char *PERIODIC = "periodic check";
constexpr const char *INTERFACES_CHANGED = "interfaces changed";

int signals_taken()
{
    sigset_t taken;
    sigemptyset(&taken);
    for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGUSR1}) {
        sigaddset(&taken, number);
    }
    pthread_sigmask(SIG_BLOCK, &taken, nullptr);
    return signalfd(-1, &taken, SFD_CLOEXEC | SFD_NONBLOCK);
}

std::string directory_of(const std::string &path)
{
    const std::string directory = std::filesystem::path(path).parent_path().string();
    return directory.empty() ? "." : directory;
}

std::string version_word(const lbexe_getable_t &readings)
{
    const std::string text = vellb::block_text(readings.version, sizeof(readings.version));
    const auto first = text.rfind("vellb2 ", 0) == 0 ? text.substr(7) : text;
    return first.substr(0, first.find(' '));
}

} // namespace

service::service(const options &asked)
    : asked_(asked), only_one_(asked.run_directory), daemon_(asked.socket, EXCHANGE_TIMEOUT),
      reader_(asked.socket, EXCHANGE_TIMEOUT,
              [this] {
                  breathe();
                  if (stopping_) {
                      throw vellb::fault(vellb::fault_e::UNREACHABLE, "stopping", "");
                  }
              }),
      signals_(checked(signals_taken(), "signalfd")),
      files_timer_(loop_, [this] { look_at_files(); }), pass_timer_(loop_, [this] { pass(); }),
      tick_(loop_, [this] { on_tick(); }), watchdog_(loop_, feed_watchdog)
{
    loop_.watch(signals_.get(), [this] { on_signals(); });
    loop_.watch(files_.fd(), [this] { on_files(); });
    loop_.watch(sockets_.fd(), [this] { on_socket(); });
    loop_.watch(links_.fd(), [this] {
        if (links_.drain()) {
            wish(INTERFACES_CHANGED, scope_e::INTERFACES, LINKS_SETTLE);
        }
    });
    if (!sockets_.add(directory_of(asked_.socket))) {
        log(level_e::WARNING, "cannot watch {}: the forwarder's return is noticed later",
            directory_of(asked_.socket));
    }
}

int service::run()
{
    watch_directories();
    if (!read_configuration()) {
        return EXIT_WRONG_FILE;
    }
    log(level_e::NOTICE, "cpserver " VELL_VERSION " keeps {} as {} says", asked_.socket,
        asked_.file);
    if (const auto period = watchdog_period()) {
        watchdog_.every(*period);
    }
    tick_.every(TICK);
    wish("start", scope_e::EVERYTHING, 0ms);
    loop_.run();
    tell_stopping();
    drop_guard();
    log(level_e::NOTICE, "stopping; the forwarder goes on as it is");
    return EXIT_DONE;
}

// --- Files --------------------------------------------------------------------------------------

void service::watch_directories()
{
    for (const std::string &each : vellcfg::directories_of(asked_.file)) {
        (void)files_.add(each); // one that is not there yet: its parent tells when it comes
    }
}

bool service::read_configuration()
{
    // Before the reading: a change during it is seen as one.
    signature_ = signature(vellcfg::files_of(asked_.file));
    loaded read = load(asked_.file);
    if (!read.good) {
        bad_file_.say(read.errors + (ready_ ? "nothing was changed: what was read before holds"
                                            : "nothing was begun: correct this and start again"));
        return false;
    }
    bad_file_.over(asked_.file + " can be read again");
    goal_ = std::move(read.what);
    return true;
}

void service::look_at_files()
{
    watch_directories();
    // Half a file may be a whole one with less in it; it is heard of when it is closed.
    const auto ours = [this](const std::string &each) { return concerns_us(each); };
    if (std::ranges::any_of(files_.unfinished(), ours) ||
        signature(vellcfg::files_of(asked_.file)) == signature_) {
        return;
    }
    if (read_configuration()) {
        wish(asked_.file + " changed", scope_e::EVERYTHING, 0ms);
    }
    say_status();
}

bool service::concerns_us(const std::string &name) const
{
    return name.empty() || name == std::filesystem::path(asked_.file).filename() ||
           name == "conf.d" || name.ends_with(".yaml");
}

void service::on_files()
{
    const auto ours = [this](const std::string &each) { return concerns_us(each); };
    if (std::ranges::any_of(files_.drain(), ours)) {
        files_timer_.in(FILES_SETTLE);
    }
}

// --- Signals, socket, clock ---------------------------------------------------------------------

void service::on_signals()
{
    bool reload = false;
    signalfd_siginfo info{};
    while (read(signals_.get(), &info, sizeof(info)) == sizeof(info)) {
        if (info.ssi_signo == SIGHUP) {
            reload = true;
        } else if (info.ssi_signo == SIGUSR1) {
            relay_takeover();
        } else {
            stopping_ = true;
            loop_.stop();
        }
    }
    if (reload && !stopping_) {
        reloading_ = true; // until the pass is over, which there is after a wrong file too
        tell_reloading();
        wish("SIGHUP", scope_e::EVERYTHING, 0ms);
        (void)read_configuration();
    }
}

void service::breathe()
{
    on_signals();
    const auto now = monotonic_t::now();
    if (now - fed_ >= FEED_PERIOD) { // a message to the manager for each of thousands is too much
        fed_ = now;
        feed_watchdog();
    }
}

// Asked for now, so tried now and never later.
void service::relay_takeover()
{
    try {
        switch (vellb::take_over(daemon_)) {
        case vellb::takeover_e::ACTIVE:
            log(level_e::NOTICE, "SIGUSR1: took over: this node is active");
            break;
        case vellb::takeover_e::ALONE:
            log(level_e::ERROR, "SIGUSR1: no takeover: this node has no partner; a pair has the "
                                "section 'ha' in its files");
            break;
        case vellb::takeover_e::YIELDED:
            log(level_e::ERROR, "SIGUSR1: this node took over and yielded again: its partner "
                                "claimed the addresses at the same moment; look at both nodes");
            break;
        }
    } catch (const vellb::fault &error) {
        log(level_e::ERROR, "SIGUSR1: no takeover: {}; {}", error.what(), error.hint());
    } catch (const vellb::refused &error) {
        log(level_e::ERROR, "SIGUSR1: no takeover: {}", error.what());
    }
}

void service::on_socket()
{
    const std::string name = std::filesystem::path(asked_.socket).filename().string();
    if (std::ranges::count(sockets_.drain(), name) != 0) {
        // It is bound before it is listened to: the first tries may be in vain.
        backoff_ = {};
        wish("the forwarder's socket changed", scope_e::EVERYTHING, 0ms);
    }
}

void service::on_tick()
{
    ticks_++;
    // What the watch does not see (links into other directories, network file systems): a change
    // that has lasted from one tick to the next.
    const std::string now = signature(vellcfg::files_of(asked_.file));
    if (now != signature_ && now == seen_signature_) {
        look_at_files();
    }
    seen_signature_ = now;
    if (pass_timer_.is_set()) {
        return;
    }
    if (monotonic_t::now() >= next_check_) {
        wish(PERIODIC, scope_e::EVERYTHING, 0ms);
        return;
    }
    if (ticks_ % TICKS_OF_GUARD == 0) {
        keep_guard({});
    }
    poll_daemon();
}

void service::poll_daemon()
{
    try {
        if (!meet(vellb::read_executor(daemon_).readings)) {
            return;
        }
        wish("the forwarder was started again", scope_e::EVERYTHING, 0ms);
    } catch (const std::runtime_error &) {
        // The pass will say what is wrong, and try again.
        wish("the forwarder did not answer", scope_e::EVERYTHING, 0ms);
    }
}

bool service::meet(const lbexe_getable_t &readings)
{
    const lb_timeval_t &now = readings.starttime;
    const bool another =
        !start_time_ || start_time_->secs != now.secs || start_time_->usecs != now.usecs;
    start_time_ = now;
    if (another) {
        const std::string theirs = version_word(readings);
        bad_version_.over();
        if (theirs != VELL_VERSION) {
            bad_version_.say(fmt::format("the forwarder is version {}, this is {}: use those that "
                                         "belong together",
                                         theirs, VELL_VERSION));
        }
    }
    return another;
}

// --- Passes -------------------------------------------------------------------------------------

void service::wish(const std::string &why, scope_e scope, milliseconds_t delay)
{
    if (std::ranges::count(reasons_, why) == 0) {
        reasons_.push_back(why);
    }
    scope_ = std::max(scope_, scope);
    const auto due = monotonic_t::now() + delay;
    if (!pass_timer_.is_set() || due < due_) {
        due_ = due;
        pass_timer_.in(delay);
    }
}

void service::pass()
{
    const std::vector<std::string> reasons = std::exchange(reasons_, {});
    const std::string why = fmt::format("{}", fmt::join(reasons, ", "));
    const scope_e scope = std::exchange(scope_, scope_e::INTERFACES);
    milliseconds_t patience = BACKOFF_REFUSED;
    bool done = false;
    const auto begin = monotonic_t::now();
    feed_watchdog();
    try {
        done = look_and_act(scope, why);
        if (done) {
            bad_daemon_.over("the forwarder is as it should be again");
        }
    } catch (const vellb::fault &error) {
        if (stopping_) {
            return;
        }
        bad_daemon_.say(fmt::format("{}; {}; trying again", error.what(), error.hint()));
        reachable_ = false;
        patience = BACKOFF_ABSENT;
        keep_guard({}); // the host's stack is there whether or not the forwarder is
    } catch (const vellb::refused &error) {
        bad_daemon_.say(fmt::format("{}; trying again", error.what()));
    } catch (const std::system_error &error) {
        bad_daemon_.say(fmt::format("{}; trying again", error.what()));
    }
    const auto end = monotonic_t::now();
    next_check_ = end + std::max<monotonic_t::duration>(CHECK_PERIOD, (end - begin) * CHECK_SHARE);
    if (done) {
        backoff_ = {};
    } else if (!stopping_) {
        backoff_ = std::clamp<milliseconds_t>(backoff_ * 2, BACKOFF_FIRST, patience);
        for (const std::string &each : reasons) {
            wish(each, scope_e::EVERYTHING, backoff_);
        }
    }
    say_status();
}

bool service::look_and_act(scope_e scope, const std::string &why)
{
    vellcfg::host_view host = vellcfg::view_host(goal_.wanted);
    for (const std::string &each : host.warnings) {
        if (!std::ranges::binary_search(warned_of_, each)) {
            log_text(level_e::WARNING, each);
        }
    }
    std::ranges::sort(host.warnings);
    warned_of_ = std::move(host.warnings);
    const bool another = meet(vellb::read_executor(daemon_).readings);
    if (another) {
        indexes_.clear();
    }
    const std::vector<std::string> others = renewed(host);
    const bool done =
        another || scope == scope_e::EVERYTHING || !reachable_
            ? make_all(host, others, why)
            : carry_out(plan_interfaces(host, vellb::read_interfaces(reader_), others), why);
    indexes_ = std::move(host.indexes); // also after refusals: else they go and come at each try
    return done;
}

bool service::make_all(const vellcfg::host_view &host, const std::vector<std::string> &renewed,
                       const std::string &why)
{
    const vellb::picture actual = vellb::read_picture(reader_);
    reachable_ = true;
    feed_watchdog();
    // What leaves and what comes is guarded while the one goes and the other arrives.
    keep_guard(actual.clusters);
    if (!carry_out(plan_all(goal_, host, actual, renewed), why)) {
        return false;
    }
    keep_guard({});
    return true;
}

std::vector<std::string> service::renewed(const vellcfg::host_view &host) const
{
    std::vector<std::string> names;
    for (const auto &[name, index] : host.indexes) {
        const auto then = indexes_.find(name);
        if (then != indexes_.end() && then->second != index) {
            names.push_back(name);
        }
    }
    return names;
}

bool service::carry_out(const vellcfg::plan &plan, const std::string &why)
{
    if (plan.empty()) {
        const bool asked_for = why != PERIODIC && why != INTERFACES_CHANGED;
        log(asked_for ? level_e::NOTICE : level_e::DEBUG, "{}: nothing to do", why);
        return true;
    }
    log(level_e::NOTICE, "{}{}: {} command{}",
        why == PERIODIC ? "somebody else changed the forwarder; putting it back; " : "", why,
        plan.steps.size(), plan.steps.size() == 1 ? "" : "s");
    for (const std::string &note : plan.notes) {
        log_text(level_e::NOTICE, note);
    }
    const auto begin = monotonic_t::now();
    const auto watch = [&](const vellcfg::progress &at) {
        if (at.done < STEPS_SHOWN) {
            log_text(level_e::INFO, "  " + at.next->text);
        } else if (at.done == STEPS_SHOWN) {
            log(level_e::INFO, "  ... and {} more", at.total - at.done);
        }
        breathe();
        return !stopping_;
    };
    const applied result = apply_all(daemon_, plan.steps, watch);
    for (const std::string &line : result.interference) {
        log_text(level_e::WARNING, line);
    }
    const auto took = std::chrono::duration_cast<milliseconds_t>(monotonic_t::now() - begin);
    if (result.refused != 0 && !result.stopped) {
        bad_daemon_.say(fmt::format("{}\nthe rest was carried out; trying again",
                                    fmt::join(result.refusals, "\n")));
    }
    log(level_e::NOTICE, "{} of {} commands carried out in {} ms", result.done, plan.steps.size(),
        took.count());
    return result.complete();
}

// --- Guard --------------------------------------------------------------------------------------

void service::keep_guard(const std::vector<vellb::cluster> &also)
{
    if (!goal_.wanted.host_guard) {
        drop_guard();
        return;
    }
    try {
        std::vector<std::string> owned;
        const auto addresses =
            guarded_addresses({&goal_.state.clusters, &also}, vellhost::read_host(), owned);
        if (!guard_) {
            guard_ = std::make_unique<guard>();
        }
        if (guard_->want(addresses)) {
            log(level_e::NOTICE, "host guard: {} address{} in the nftables tables {}",
                addresses.size(), addresses.size() == 1 ? "" : "es", GUARD_TABLE);
        }
        if (owned.empty()) {
            bad_guard_.over("host guard: in force");
        } else {
            bad_guard_.say(fmt::format("host guard: {}", fmt::join(owned, "\n")));
        }
    } catch (const std::runtime_error &error) {
        bad_guard_.say(fmt::format("host guard: {}; trying again", error.what()));
    }
}

void service::drop_guard()
{
    if (!guard_ && swept_) {
        return;
    }
    swept_ = true;
    try {
        // At first those of a cpserver that was killed, if there are any.
        guard().remove();
    } catch (const std::runtime_error &error) {
        if (guard_) {
            bad_guard_.say(fmt::format("host guard: {}", error.what()));
        }
    }
    guard_.reset();
}

// --- The service manager ------------------------------------------------------------------------

void service::say_status()
{
    const bool pending = pass_timer_.is_set();
    const std::string status = !bad_file_.text().empty()     ? bad_file_.text()
                               : !bad_daemon_.text().empty() ? bad_daemon_.text()
                               : pending                     ? "working"
                                                             : "the forwarder is as the file says";
    if (ready_ && !reloading_) {
        tell_status(status);
        return;
    }
    tell_ready(status);
    ready_ = true;
    reloading_ = false;
}

} // namespace cpserver
