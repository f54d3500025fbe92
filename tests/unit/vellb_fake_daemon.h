// The daemon's command side as its clients meet it: a thread behind a unix socket in a directory of
// its own, that hands commands to the stack of the test. It can be told to refuse, to lie, to hang
// up or to stay silent. What it keeps is the test's to read between two commands.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <poll.h>
#include <thread>

#include "stack_fixture.h"
#include "vellb/command.h"

class scratch_directory
{
  public:
    scratch_directory()
    {
        char name[] = "/tmp/vellb-test-XXXXXX";
        path = mkdtemp(name);
    }
    ~scratch_directory() { std::filesystem::remove_all(path); }
    std::string path;
};

class fake_daemon
{
  public:
    enum class manners_e { GOOD, HANGS_UP_AT_ONCE, HANGS_UP_HALFWAY, SILENT };

    fake_daemon()
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path().copy(address.sun_path, sizeof(address.sun_path) - 1);
        listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (bind(listener_, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0 ||
            listen(listener_, 1) != 0) {
            abort();
        }
        thread_ = std::thread([this] { serve(); });
    }
    fake_daemon(const fake_daemon &) = delete;
    fake_daemon &operator=(const fake_daemon &) = delete;
    ~fake_daemon() { stop(); }

    // Ends the service; the path stays behind, as after a crash.
    void stop()
    {
        if (thread_.joinable()) {
            stopping_ = true;
            shutdown(listener_, SHUT_RDWR);
            thread_.join();
            close(listener_);
        }
    }

    std::string path() const { return directory_.path + "/socket"; }
    const std::string &directory() const { return directory_.path; }

    std::atomic<manners_e> manners{manners_e::GOOD};
    // An answer code other than 0 refuses; `lie` edits answers.
    std::function<unsigned(const lbcmd_bufhdr_t &)> refuse{};
    std::function<void(lbcmd_buf_t &)> lie{};
    // What a GET tells of an object of the configuration, instead of what the stack has counted.
    std::vector<std::pair<lbcmd_key_t, vellb::bytes_t>> readings{};
    // Commands carried out so far, other than GET: "ADD port 10.0.0.1:80".
    std::vector<std::string> changes{};

  private:
    void execute(lbcmd_buf_t &b)
    {
        static const char *const names[] = {"", "ADD ", "RM ", "GET ", "SET "};
        const bool get = b.hdr.action == LBCMD_ACTION_GET;
        const auto keytype = static_cast<lbcmd_keytype_e>(b.hdr.keytype);
        const unsigned code = refuse ? refuse(b.hdr) : 0;
        b.hdr.answer_rc = static_cast<lb_u16_t>(code);
        if (code == 0 && lbcmd_entry(&b) == LBCMD_RC_SUCCESS && !get) {
            changes.push_back(names[b.hdr.action] + vellb::key_text(keytype, b.hdr.key));
        }
        for (const auto &[key, block] : readings) {
            if (get && keytype == LBCMD_KEYTYPE_CONFIG &&
                memcmp(&key, &b.hdr.key, sizeof(key)) == 0) {
                std::copy(block.begin(), block.end(), b._x + b.hdr.addsize + b.hdr.setsize);
            }
        }
        if (lie) {
            lie(b);
        }
    }

    void serve_one(int fd)
    {
        auto buffer = std::make_unique<lbcmd_buf_t>();
        constexpr size_t WHOLE = sizeof(*buffer);
        if (manners == manners_e::HANGS_UP_AT_ONCE ||
            recv(fd, buffer.get(), WHOLE, MSG_WAITALL) != static_cast<ssize_t>(WHOLE)) {
            return;
        }
        while (manners == manners_e::SILENT && !stopping_) {
            poll(nullptr, 0, 5);
        }
        execute(*buffer);
        const size_t size = manners == manners_e::HANGS_UP_HALFWAY ? WHOLE / 2 : WHOLE;
        (void)send(fd, buffer.get(), size, MSG_NOSIGNAL); // all of it, as the socket blocks
    }

    void serve()
    {
        while (!stopping_) {
            const int fd = accept(listener_, nullptr, nullptr);
            if (fd >= 0) {
                serve_one(fd);
                close(fd);
            }
        }
    }

    scratch_directory directory_;
    int listener_ = -1;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};
