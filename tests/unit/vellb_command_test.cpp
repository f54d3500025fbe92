// What is made of answers that are cut, too large or not answers at all.
#include "prot/blocks.h"
#include "vellb_fake_daemon.h"

namespace
{

TEST(vellb_command, blocks_that_do_not_fit_are_not_sent)
{
    const vellb::request what{.addable = vellb::bytes_t(40000), .setable = vellb::bytes_t(30000)};
    EXPECT_THROW(vellb::encode(what), std::length_error);
}

const struct {
    const char *name;
    void (*lie)(lbcmd_buf_t &);
    const char *message; // "": believed
} LIES[] = {
    {"honest", [](lbcmd_buf_t &) {}, ""},
    {"other version", [](lbcmd_buf_t &b) { b.hdr.lbversion++; }, "protocol version"},
    {"other action", [](lbcmd_buf_t &b) { b.hdr.action = LBCMD_ACTION_SET; }, "action"},
    {"other tree", [](lbcmd_buf_t &b) { b.hdr.keytype = LBCMD_KEYTYPE_IFACE; }, "key type"},
    {"no code", [](lbcmd_buf_t &b) { b.hdr.answer_rc = 0; }, "no answer code"},
    {"all sizes at most",
     [](lbcmd_buf_t &b) {
         b.hdr.addsize = b.hdr.setsize = b.hdr.getsize = 65535;
         b.hdr.listsize = 65520;
     },
     "do not fit"},
    {"half a key", [](lbcmd_buf_t &b) { b.hdr.listsize = 28; }, "do not fit"},
    {"a stranger as child", [](lbcmd_buf_t &b) { b.hdr.listsize = 56; }, "lists"},
    {"long settable block", [](lbcmd_buf_t &b) { b.hdr.setsize = 281; }, "settable block"},
    {"no readable block", [](lbcmd_buf_t &b) { b.hdr.getsize = 0; }, "readable block"},
};

TEST(vellb_command, answers_that_lie_are_faults)
{
    const vellb::request what{.key = stack::cfgkey("10.0.0.100")};
    for (const auto &row : LIES) {
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
        EXPECT_EQ(message.empty(), *row.message == '\0') << row.name << ": " << message;
        EXPECT_NE(message.find(row.message), std::string::npos) << row.name << ": " << message;
    }
}

TEST(vellb_command, texts_without_an_end_stay_within_their_field)
{
    const char full[8] = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'};
    EXPECT_EQ(vellb::block_text(full, sizeof(full)), "abcdefgh");
    EXPECT_EQ(vellb::block_text("a\033[2Jb\0c", 8), "a?[2Jb");
}

// --- The road to the daemon ----------------------------------------------------------------------

using vellb_client = StackTest;

TEST_F(vellb_client, says_what_kept_it_from_an_answer)
{
    using manners_e = fake_daemon::manners_e;
    using fault_e = vellb::fault_e;
    fake_daemon daemon;
    const struct {
        manners_e manners; // GOOD: of a daemon that is gone
        std::string path;
        fault_e kind;
        const char *message;
    } rows[] = {
        {manners_e::HANGS_UP_AT_ONCE, daemon.path(), fault_e::CLOSED_EARLY, ""},
        {manners_e::HANGS_UP_HALFWAY, daemon.path(), fault_e::CLOSED_EARLY,
         "after 32768 of 65536 bytes"},
        {manners_e::SILENT, daemon.path(), fault_e::TIMED_OUT, ""},
        {manners_e::GOOD, daemon.path(), fault_e::UNREACHABLE, "nobody listens"},
        {manners_e::GOOD, daemon.path() + "x", fault_e::UNREACHABLE, "does not exist"},
        {manners_e::GOOD, "/etc/passwd", fault_e::UNREACHABLE, "is not a socket"},
        {manners_e::GOOD, "/" + std::string(200, 'x'), fault_e::UNREACHABLE, ""},
    };
    for (const auto &row : rows) {
        daemon.manners = row.manners;
        if (row.manners == manners_e::GOOD) {
            daemon.stop();
        }
        try {
            vellb::run(vellb::client(row.path, std::chrono::milliseconds(200)), {});
            ADD_FAILURE() << "the exchange succeeded";
        } catch (const vellb::fault &fault) {
            EXPECT_EQ(fault.kind(), row.kind) << fault.what();
            EXPECT_NE(std::string(fault.what()).find(row.message), std::string::npos)
                << fault.what();
            EXPECT_FALSE(fault.hint().empty()) << fault.what();
        }
    }
}

} // namespace
