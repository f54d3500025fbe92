// A stand-in for the daemon's command side: a thread on a unix socket in a directory of its own,
// that keeps objects by key with the protocol's rules (parents first, children last), and that can
// be told to refuse, to lie, to hang up or to stay silent.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <mutex>
#include <poll.h>
#include <thread>
#include <vector>

#include "prot/blocks.h"
#include "vellb/address.h"
#include "vellb/command.h"

class fake_daemon
{
  public:
    struct object {
        lbcmd_keytype_e keytype;
        lbcmd_key_t key;
        vellb::bytes_t addable;
        vellb::bytes_t setable;
        vellb::bytes_t getable;
    };
    enum class manners_e { GOOD, HANGS_UP_AT_ONCE, HANGS_UP_HALFWAY, SILENT };

    fake_daemon()
    {
        char name[] = "/tmp/vellb-test-XXXXXX";
        directory_ = mkdtemp(name);
        path_ = directory_ + "/socket";
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path_.copy(address.sun_path, sizeof(address.sun_path) - 1);
        listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (bind(listener_, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0 ||
            listen(listener_, 1) != 0) {
            abort();
        }
        lbexe_setable_t executor{};
        executor.log_mask = 0x200;
        executor.ha.role = LBHA_ROLE_SOLO;
        lbexe_getable_t readings{};
        std::string("1.2.3 Test").copy(readings.version, sizeof(readings.version));
        put({LBCMD_KEYTYPE_CONFIG, {}, {}, vellb::bytes_of(executor), vellb::bytes_of(readings)});
        put({LBCMD_KEYTYPE_IFACE, {}, {}, vellb::bytes_t(4), vellb::bytes_t(4)});
        thread_ = std::thread([this] { serve(); });
    }
    fake_daemon(const fake_daemon &) = delete;
    fake_daemon &operator=(const fake_daemon &) = delete;
    ~fake_daemon()
    {
        stop();
        std::filesystem::remove_all(directory_);
    }

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

    const std::string &path() const { return path_; }
    const std::string &directory() const { return directory_; }

    std::atomic<manners_e> manners{manners_e::GOOD};
    // Set before the first command: an answer code other than 0 refuses; `lie` edits answers.
    std::function<unsigned(const lbcmd_bufhdr_t &)> refuse{};
    std::function<void(lbcmd_buf_t &)> lie{};

    // Commands carried out so far, other than GET: "ADD port 10.0.0.1:80".
    std::vector<std::string> changes()
    {
        const std::lock_guard held(mutex_);
        return changes_;
    }
    void forget_changes()
    {
        const std::lock_guard held(mutex_);
        changes_.clear();
    }
    // A copy of an object; aborts the test if there is none.
    object at(lbcmd_keytype_e keytype, const lbcmd_key_t &key)
    {
        const std::lock_guard held(mutex_);
        return *find(keytype, key);
    }
    void put(object what)
    {
        const std::lock_guard held(mutex_);
        if (object *old = find(what.keytype, what.key)) {
            *old = std::move(what);
        } else {
            objects_.push_back(std::move(what));
        }
    }

    bool has(lbcmd_keytype_e keytype, const lbcmd_key_t &key)
    {
        const std::lock_guard held(mutex_);
        return find(keytype, key) != nullptr;
    }

  private:
    static bool same(lbcmd_keytype_e keytype, const lbcmd_key_t &a, const lbcmd_key_t &b)
    {
        if (keytype == LBCMD_KEYTYPE_IFACE) {
            return memcmp(a.iface.name, b.iface.name, LBIFACE_NAMELEN) == 0 &&
                   vellb::same_address(a.iface.addr, b.iface.addr);
        }
        return vellb::same_address(a.cfg.cluster, b.cfg.cluster) && a.cfg.port == b.cfg.port &&
               a.cfg.rule == b.cfg.rule && vellb::same_address(a.cfg.server, b.cfg.server);
    }
    object *find(lbcmd_keytype_e keytype, const lbcmd_key_t &key)
    {
        for (object &each : objects_) {
            if (each.keytype == keytype && same(keytype, each.key, key)) {
                return &each;
            }
        }
        return nullptr;
    }
    bool has_parent(lbcmd_keytype_e keytype, const lbcmd_key_t &key) const
    {
        for (const object &each : objects_) {
            // A use-server is listed under its server, too, but made under its rule.
            const bool lists_only = vellb::object_of(keytype, each.key) == vellb::object_e::SERVER;
            if (each.keytype == keytype && !lists_only && vellb::is_child(keytype, each.key, key)) {
                return true;
            }
        }
        return false;
    }
    static size_t readable_size(lbcmd_keytype_e keytype, const lbcmd_key_t &key)
    {
        switch (vellb::object_of(keytype, key)) {
        case vellb::object_e::CLUSTER: return sizeof(lbclu_getable_t);
        case vellb::object_e::PORT: return sizeof(lbport_getable_t);
        case vellb::object_e::SERVER: return sizeof(lbsrv_getable_t);
        case vellb::object_e::RULE: return sizeof(lbrul_getable_t);
        case vellb::object_e::USESERVER: return sizeof(lbusrv_getable_t);
        default: return 4;
        }
    }

    unsigned add(const lbcmd_buf_t &b)
    {
        const auto keytype = static_cast<lbcmd_keytype_e>(b.hdr.keytype);
        if (find(keytype, b.hdr.key) != nullptr) {
            return LBCMD_RC_ALREADYEXISTS;
        }
        if (!has_parent(keytype, b.hdr.key)) {
            return LBCMD_RC_PARENTDNE;
        }
        const lb_u8_t *setable = b._x + b.hdr.addsize;
        objects_.push_back({keytype, b.hdr.key, vellb::bytes_t(b._x, setable),
                            vellb::bytes_t(setable, setable + b.hdr.setsize),
                            vellb::bytes_t(readable_size(keytype, b.hdr.key))});
        return LBCMD_RC_SUCCESS;
    }
    unsigned rm(const lbcmd_buf_t &b)
    {
        const auto keytype = static_cast<lbcmd_keytype_e>(b.hdr.keytype);
        const object *found = find(keytype, b.hdr.key);
        if (found == nullptr) {
            return LBCMD_RC_OBJNOTFOUND;
        }
        const bool root = &objects_[0] == found;
        for (const object &each : objects_) {
            if (!root && each.keytype == keytype &&
                vellb::is_child(keytype, found->key, each.key)) {
                return LBCMD_RC_HASCHILD;
            }
        }
        objects_.erase(objects_.begin() + (found - objects_.data()));
        return LBCMD_RC_SUCCESS;
    }
    unsigned get(lbcmd_buf_t &b)
    {
        const auto keytype = static_cast<lbcmd_keytype_e>(b.hdr.keytype);
        const object *found = find(keytype, b.hdr.key);
        if (found == nullptr) {
            return LBCMD_RC_OBJNOTFOUND;
        }
        b.hdr.key = found->key;
        lb_u8_t *to = b._x;
        const auto append = [&](const vellb::bytes_t &block) {
            to = std::copy(block.begin(), block.end(), to);
            return static_cast<lb_u16_t>(block.size());
        };
        b.hdr.addsize = append(found->addable);
        b.hdr.setsize = append(found->setable);
        b.hdr.getsize = append(found->getable);
        b.hdr.listsize = 0;
        for (const object &each : objects_) {
            if (each.keytype == keytype && vellb::is_child(keytype, found->key, each.key)) {
                b.hdr.listsize =
                    static_cast<lb_u16_t>(b.hdr.listsize + append(vellb::bytes_of(each.key)));
            }
        }
        return LBCMD_RC_SUCCESS;
    }
    unsigned set(const lbcmd_buf_t &b)
    {
        object *found = find(static_cast<lbcmd_keytype_e>(b.hdr.keytype), b.hdr.key);
        if (found == nullptr) {
            return LBCMD_RC_OBJNOTFOUND;
        }
        if (b.hdr.setsize != found->setable.size()) {
            return LBCMD_RC_FAILURE;
        }
        found->setable.assign(b._x, b._x + b.hdr.setsize);
        return LBCMD_RC_SUCCESS;
    }

    void execute(lbcmd_buf_t &b)
    {
        const std::lock_guard held(mutex_);
        static const char *const names[] = {"", "ADD ", "RM ", "GET ", "SET "};
        const auto keytype = static_cast<lbcmd_keytype_e>(b.hdr.keytype);
        const lb_u8_t action = b.hdr.action;
        unsigned code = refuse ? refuse(b.hdr) : 0;
        if (code == 0) {
            code = action == LBCMD_ACTION_ADD   ? add(b)
                   : action == LBCMD_ACTION_RM  ? rm(b)
                   : action == LBCMD_ACTION_GET ? get(b)
                                                : set(b);
            if (action != LBCMD_ACTION_GET && code == LBCMD_RC_SUCCESS) {
                changes_.push_back(names[action] + vellb::key_text(keytype, b.hdr.key));
            }
        }
        b.hdr.answer_rc = static_cast<lb_u16_t>(code);
        if (lie) {
            lie(b);
        }
    }

    void serve_one(int fd)
    {
        auto buffer = std::make_unique<lbcmd_buf_t>();
        auto *bytes = reinterpret_cast<char *>(buffer.get());
        if (manners == manners_e::HANGS_UP_AT_ONCE) {
            return;
        }
        for (size_t done = 0; done < sizeof(*buffer);) {
            const ssize_t got = read(fd, bytes + done, sizeof(*buffer) - done);
            if (got <= 0) {
                return;
            }
            done += static_cast<size_t>(got);
        }
        while (manners == manners_e::SILENT && !stopping_) {
            poll(nullptr, 0, 5);
        }
        execute(*buffer);
        const size_t whole = sizeof(*buffer);
        const size_t size = manners == manners_e::HANGS_UP_HALFWAY ? whole / 2 : whole;
        for (size_t done = 0; done < size;) {
            const ssize_t sent = send(fd, bytes + done, size - done, MSG_NOSIGNAL);
            if (sent <= 0) {
                return;
            }
            done += static_cast<size_t>(sent);
        }
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

    std::string directory_;
    std::string path_;
    int listener_ = -1;
    std::atomic<bool> stopping_{false};
    std::mutex mutex_;
    std::vector<object> objects_;
    std::vector<std::string> changes_;
    std::thread thread_;
};
