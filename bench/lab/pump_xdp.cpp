// Frames made by way of XDP, and the sink in traffic control. Both programs are a few dozen
// instructions, so they are assembled here and need no compiler for BPF at build or run time.
//
// The sending program writes every header byte anew for each frame: the kernel recycles a page as
// soon as the frame that was in it is gone, and what a forwarder has rewritten comes back with it.
//
// Starting a test run costs some 20 ms, most of it waiting. So one run must last for a whole
// measurement; a signal ends it early, and a counter in a map says how far it came.
#include <linux/bpf.h>
#include <linux/pkt_cls.h>
#include <net/if.h>
#include <system_error>
#include <unistd.h>

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "pump.h"

namespace pump
{
namespace
{

using code_t = std::vector<bpf_insn>;

bpf_insn insn(unsigned code, unsigned dst, unsigned src, int off, std::int32_t imm)
{
    bpf_insn made{};
    made.code = static_cast<__u8>(code);
    made.dst_reg = dst & 0xf;
    made.src_reg = src & 0xf;
    made.off = static_cast<__s16>(off);
    made.imm = imm;
    return made;
}

bpf_insn mov(unsigned dst, unsigned src)
{
    return insn(BPF_ALU64 | BPF_MOV | BPF_X, dst, src, 0, 0);
}
bpf_insn movi(unsigned dst, int imm)
{
    return insn(BPF_ALU64 | BPF_MOV | BPF_K, dst, 0, 0, imm);
}
bpf_insn alui(unsigned op, unsigned dst, int imm)
{
    return insn(BPF_ALU64 | op | BPF_K, dst, 0, 0, imm);
}
bpf_insn load(unsigned size, unsigned dst, unsigned src, int off)
{
    return insn(BPF_LDX | BPF_MEM | size, dst, src, off, 0);
}
bpf_insn call(int helper)
{
    return insn(BPF_JMP | BPF_CALL, 0, 0, 0, helper);
}
bpf_insn leave()
{
    return insn(BPF_JMP | BPF_EXIT, 0, 0, 0, 0);
}

// r7 = start of the packet; leaves with `verdict` when it is shorter than `need` bytes. `begin` and
// `end` are where the program's context has the packet's bounds.
void open_packet(code_t &code, int begin, int end, int need, int verdict)
{
    code.push_back(load(BPF_W, 7, 1, begin));
    code.push_back(load(BPF_W, 3, 1, end));
    code.push_back(mov(4, 7));
    code.push_back(alui(BPF_ADD, 4, need));
    code.push_back(insn(BPF_JMP | BPF_JLE | BPF_X, 4, 3, 2, 0));
    code.push_back(movi(0, verdict));
    code.push_back(leave());
}

// Adds one to the first 8 bytes of the map's value.
void count_up(code_t &code, int map)
{
    code.push_back(insn(BPF_LD | BPF_IMM | BPF_DW, 8, BPF_PSEUDO_MAP_VALUE, 0, map));
    code.push_back(insn(0, 0, 0, 0, 0)); // second half of the wide instruction: offset 0
    code.push_back(movi(2, 1));
    code.push_back(insn(BPF_STX | BPF_ATOMIC | BPF_DW, 8, 2, 0, BPF_ADD));
}

code_t sender_code(const stream_t &stream, unsigned ifindex, int map)
{
    const std::vector<std::uint8_t> frame = build_frame(stream);
    code_t code;
    open_packet(code, offsetof(xdp_md, data), offsetof(xdp_md, data_end), HEADERS, XDP_ABORTED);
    for (std::size_t at = 0; at < HEADERS; at += at + 4 <= HEADERS ? 4 : 2) {
        std::int32_t word = 0;
        const unsigned size = at + 4 <= HEADERS ? BPF_W : BPF_H;
        std::memcpy(&word, &frame[at], size == BPF_W ? 4 : 2);
        code.push_back(insn(BPF_ST | BPF_MEM | size, 7, 0, static_cast<int>(at), word));
    }
    code.push_back(call(BPF_FUNC_get_prandom_u32));
    code.push_back(alui(BPF_AND, 0, stream.flows - 1));
    code.push_back(alui(BPF_ADD, 0, stream.sport_base));
    code.push_back(insn(BPF_ALU | BPF_END | BPF_TO_BE, 0, 0, 0, 16));
    code.push_back(insn(BPF_STX | BPF_MEM | BPF_H, 7, 0, SPORT_OFFSET, 0));
    count_up(code, map);
    code.push_back(movi(1, static_cast<int>(ifindex)));
    code.push_back(movi(2, 0));
    code.push_back(call(BPF_FUNC_redirect));
    code.push_back(leave());
    return code;
}

// For the egress hook of traffic control: IPv4 is counted and taken away, the rest goes its way.
code_t sink_code(int map)
{
    constexpr int ethertype_at = 12;
    constexpr int ipv4_as_loaded = 0x0008; // little-endian load of 08 00
    code_t code;
    open_packet(code, offsetof(__sk_buff, data), offsetof(__sk_buff, data_end), 14, TC_ACT_OK);
    code.push_back(load(BPF_H, 5, 7, ethertype_at));
    code.push_back(insn(BPF_JMP | BPF_JEQ | BPF_K, 5, 0, 2, ipv4_as_loaded));
    code.push_back(movi(0, TC_ACT_OK));
    code.push_back(leave());
    count_up(code, map);
    code.push_back(movi(0, TC_ACT_STOLEN));
    code.push_back(leave());
    return code;
}

// The descriptor, or a negative error.
int load_program(bpf_prog_type type, const char *name, const code_t &code)
{
    return bpf_prog_load(type, name, "GPL", code.data(), code.size(), nullptr);
}

unsigned index_of(const std::string &dev)
{
    const unsigned ifindex = if_nametoindex(dev.c_str());
    if (ifindex == 0) {
        throw std::system_error(errno, std::generic_category(), "interface " + dev);
    }
    return ifindex;
}

// A descriptor of the bpf system call, closed with its owner.
class bpf_fd_t
{
  public:
    bpf_fd_t(int fd, const char *what) : fd_(fd)
    {
        if (fd < 0) {
            throw std::system_error(-fd, std::generic_category(), what);
        }
    }
    ~bpf_fd_t() { close(fd_); }
    bpf_fd_t(const bpf_fd_t &) = delete;
    bpf_fd_t &operator=(const bpf_fd_t &) = delete;
    int get() const { return fd_; }

  private:
    int fd_;
};

// A number that a program counts up.
class counter_t
{
  public:
    counter_t()
        : map_(bpf_map_create(BPF_MAP_TYPE_ARRAY, "vell_count", sizeof(__u32), sizeof(__u64), 1,
                              nullptr),
               "a BPF map")
    {
    }
    int fd() const { return map_.get(); }
    std::uint64_t value() const
    {
        const __u32 key = 0;
        __u64 value = 0;
        const int rc = bpf_map_lookup_elem(map_.get(), &key, &value);
        if (rc != 0) {
            throw std::system_error(-rc, std::generic_category(), "reading a BPF map");
        }
        return value;
    }

  private:
    bpf_fd_t map_;
};

class xdp_engine_t final : public engine_t
{
  public:
    explicit xdp_engine_t(const stream_t &stream)
        : frame_(build_frame(stream)),
          program_(load_program(BPF_PROG_TYPE_XDP, "vell_pump",
                                sender_code(stream, index_of(stream.dev), sent_.fd())),
                   "an XDP program")
    {
    }

    const char *name() const override { return "xdp"; }

    std::uint64_t send(std::uint32_t count) override
    {
        const std::uint64_t before = sent_.value();
        LIBBPF_OPTS(bpf_test_run_opts, opts, .data_in = frame_.data(),
                    .data_size_in = static_cast<__u32>(frame_.size()),
                    .repeat = static_cast<int>(count), .flags = BPF_F_TEST_XDP_LIVE_FRAMES,
                    .batch_size = 64);
        const int rc = bpf_prog_test_run_opts(program_.get(), &opts);
        if (rc != 0 && rc != -EINTR) {
            throw std::system_error(-rc, std::generic_category(), "a test run with live frames");
        }
        return sent_.value() - before;
    }

  private:
    std::vector<std::uint8_t> frame_;
    counter_t sent_;
    bpf_fd_t program_;
};

class egress_sink_t final : public sink_t
{
  public:
    explicit egress_sink_t(const std::string &dev)
        : program_(load_program(BPF_PROG_TYPE_SCHED_CLS, "vell_sink", sink_code(taken_.fd())),
                   "a traffic control program")
    {
        LIBBPF_OPTS(bpf_tc_hook, hook, .ifindex = static_cast<int>(index_of(dev)),
                    .attach_point = BPF_TC_EGRESS);
        LIBBPF_OPTS(bpf_tc_opts, opts, .prog_fd = program_.get());
        int rc = bpf_tc_hook_create(&hook);
        if (rc == 0 || rc == -EEXIST) {
            rc = bpf_tc_attach(&hook, &opts);
        }
        if (rc != 0) {
            throw std::system_error(-rc, std::generic_category(), "attaching the sink to " + dev);
        }
    }

    std::uint64_t taken() const override { return taken_.value(); }

  private:
    counter_t taken_;
    bpf_fd_t program_;
};

} // namespace

std::unique_ptr<engine_t> make_xdp_engine(const stream_t &stream)
{
    return std::make_unique<xdp_engine_t>(stream);
}

std::unique_ptr<sink_t> attach_sink(const std::string &dev)
{
    return std::make_unique<egress_sink_t>(dev);
}

} // namespace pump
