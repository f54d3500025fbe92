// What is made of answers that are cut, too large or not answers at all.
#include <gtest/gtest.h>

#include "prot/blocks.h"
#include "vellb/address.h"
#include "vellb/command.h"
#include "vellb_fake_daemon.h"

namespace
{

lbip_addr_t ip(const char *text)
{
    return *vellb::parse_address(text);
}

TEST(vellb_command, blocks_that_do_not_fit_are_not_sent)
{
    EXPECT_THROW(vellb::encode({LBCMD_KEYTYPE_CONFIG,
                                LBCMD_ACTION_ADD,
                                {},
                                vellb::bytes_t(40000),
                                vellb::bytes_t(30000)}),
                 std::length_error);
}

struct lie_row_t {
    const char *name;
    void (*lie)(lbcmd_buf_t &);
    const char *message; // null: believed
};

const lie_row_t LIES[] = {
    {"honest", [](lbcmd_buf_t &) {}, nullptr},
    {"other version", [](lbcmd_buf_t &b) { b.hdr.lbversion++; }, "protocol version"},
    {"other action", [](lbcmd_buf_t &b) { b.hdr.action = LBCMD_ACTION_SET; }, "action"},
    {"other tree", [](lbcmd_buf_t &b) { b.hdr.keytype = LBCMD_KEYTYPE_IFACE; }, "key type"},
    {"no code", [](lbcmd_buf_t &b) { b.hdr.answer_rc = 0; }, "no answer code"},
    {"sizes past the end", [](lbcmd_buf_t &b) { b.hdr.getsize = 65464; }, "do not fit"},
    {"all sizes at most",
     [](lbcmd_buf_t &b) {
         b.hdr.addsize = b.hdr.setsize = b.hdr.getsize = 65535;
         b.hdr.listsize = 65520;
     },
     "do not fit"},
    {"half a key", [](lbcmd_buf_t &b) { b.hdr.listsize = 28; }, "do not fit"},
    {"list past the end", [](lbcmd_buf_t &b) { b.hdr.listsize = 65464 / 56 * 56; }, "do not fit"},
    {"a stranger as child", [](lbcmd_buf_t &b) { b.hdr.listsize = 56; }, "lists"},
    {"short settable block", [](lbcmd_buf_t &b) { b.hdr.setsize = 279; }, "settable block"},
    {"long settable block", [](lbcmd_buf_t &b) { b.hdr.setsize = 281; }, "settable block"},
    {"no readable block", [](lbcmd_buf_t &b) { b.hdr.getsize = 0; }, "readable block"},
};

TEST(vellb_command, answers_that_lie_are_faults)
{
    const vellb::request what{LBCMD_KEYTYPE_CONFIG, LBCMD_ACTION_GET,
                              vellb::cluster_key(ip("10.0.0.100"))};
    for (const lie_row_t &row : LIES) {
        auto buffer = vellb::encode(what);
        buffer->hdr.answer_rc = LBCMD_RC_SUCCESS;
        buffer->hdr.addsize = sizeof(lbclu_addable_t);
        buffer->hdr.setsize = sizeof(lbclu_setable_t);
        buffer->hdr.getsize = sizeof(lbclu_getable_t);
        row.lie(*buffer);
        std::string message;
        try {
            const vellb::answer got = vellb::decode(*buffer, what);
            static_cast<void>(vellb::block_of<lbclu_setable_t>(got.setable, "settable"));
            static_cast<void>(vellb::block_of<lbclu_getable_t>(got.getable, "readable"));
        } catch (const vellb::fault &fault) {
            EXPECT_EQ(fault.kind(), vellb::fault_e::MALFORMED) << row.name;
            message = fault.what();
        }
        EXPECT_EQ(message.empty(), row.message == nullptr) << row.name << ": " << message;
        EXPECT_NE(message.find(row.message == nullptr ? "" : row.message), std::string::npos)
            << row.name << ": " << message;
    }
}

TEST(vellb_command, texts_without_an_end_stay_within_their_field)
{
    const char full[8] = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'};
    EXPECT_EQ(vellb::block_text(full, sizeof(full)), "abcdefgh");
    EXPECT_EQ(vellb::block_text("a\033[2Jb\0c", 8), "a?[2Jb");
}

// --- The road to the daemon ----------------------------------------------------------------------

vellb::fault_e kind_of(const std::string &path, std::string &message)
{
    const vellb::client client(path, std::chrono::milliseconds(200));
    try {
        vellb::run(client, {LBCMD_KEYTYPE_CONFIG, LBCMD_ACTION_GET, {}});
    } catch (const vellb::fault &fault) {
        EXPECT_FALSE(fault.hint().empty());
        message = fault.what();
        return fault.kind();
    }
    ADD_FAILURE() << "the exchange succeeded";
    return vellb::fault_e::MALFORMED;
}

TEST(vellb_client, says_what_kept_it_from_an_answer)
{
    using manners_e = fake_daemon::manners_e;
    fake_daemon daemon;
    std::string message;

    daemon.manners = manners_e::HANGS_UP_AT_ONCE;
    EXPECT_EQ(kind_of(daemon.path(), message), vellb::fault_e::CLOSED_EARLY);
    daemon.manners = manners_e::HANGS_UP_HALFWAY;
    EXPECT_EQ(kind_of(daemon.path(), message), vellb::fault_e::CLOSED_EARLY);
    EXPECT_NE(message.find("after 32768 of 65536 bytes"), std::string::npos) << message;
    daemon.manners = manners_e::SILENT;
    EXPECT_EQ(kind_of(daemon.path(), message), vellb::fault_e::TIMED_OUT);

    daemon.stop();
    EXPECT_EQ(kind_of(daemon.path(), message), vellb::fault_e::UNREACHABLE);
    EXPECT_NE(message.find("nobody listens"), std::string::npos) << message;
    EXPECT_EQ(kind_of(daemon.path() + "x", message), vellb::fault_e::UNREACHABLE);
    EXPECT_NE(message.find("does not exist"), std::string::npos) << message;
    EXPECT_EQ(kind_of("/etc/passwd", message), vellb::fault_e::UNREACHABLE);
    EXPECT_NE(message.find("is not a socket"), std::string::npos) << message;
    EXPECT_EQ(kind_of("/" + std::string(200, 'x'), message), vellb::fault_e::UNREACHABLE);
}

} // namespace
