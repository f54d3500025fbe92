// One command being carried out: the daemon it talks to, and how results, refusals and warnings
// reach the person or program that asked.
#pragma once

#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <vector>

#include "grammar.h"
#include "vellb/tree.h"

namespace vellbctl
{

// Something other than the daemon forbids it.
class declined : public std::runtime_error
{
  public:
    declined(const std::string &message, std::string remedy, std::vector<std::string> why = {})
        : std::runtime_error(message), hint(std::move(remedy)), reasons(std::move(why))
    {
    }
    std::string hint;
    std::vector<std::string> reasons; // one a line, before the message
};

struct streams {
    std::ostream &out;
    std::ostream &err;
    bool tty; // is `out` a terminal?
};

class session
{
  public:
    session(const request &asked, const streams &to)
        : req(asked), daemon(asked.socket), out(to.out), err(to.err), tty(to.tty)
    {
    }

    // Once per command: the text, or the document with the warnings in it.
    void answer(const std::string &text, nlohmann::ordered_json document);
    // Shown on standard error, or with the document.
    void warn(const std::vector<std::string> &texts);

    // Warns of what a look finds after a change. The change has been made: failing to look is no
    // failure.
    template <class F> void look_again(F find)
    {
        try {
            warn(find());
        } catch (const vellb::refused &) {
        } catch (const vellb::fault &) {
        }
    }

    // ADD, SET and RM of one object, and the report of it.
    void add(lbcmd_keytype_e keytype, const lbcmd_key_t &key, vellb::bytes_t addable,
             vellb::bytes_t setable);
    void done(const char *what, lbcmd_keytype_e keytype, const lbcmd_key_t &key);

    // Read, change, write: what the edits don't name stays as it is.
    template <class B>
    void change(lbcmd_keytype_e keytype, const lbcmd_key_t &key, const edits_t<B> &edits)
    {
        const vellb::answer now = vellb::run(daemon, {keytype, LBCMD_ACTION_GET, key});
        B block = vellb::block_of<B>(now.setable, "settable");
        edits.apply(block);
        vellb::run(daemon, {keytype, LBCMD_ACTION_SET, key, {}, vellb::bytes_of(block)});
    }

    // RM; with `recursive` of everything below it first. Returns how many objects went.
    unsigned remove(lbcmd_keytype_e keytype, const lbcmd_key_t &key, bool recursive);

    const request &req;
    const vellb::client daemon;
    std::ostream &out;
    std::ostream &err;
    const bool tty;

  private:
    std::vector<std::string> warnings_{};
};

// A failure as people and programs are told it.
struct complaint {
    unsigned code = 0; // the daemon's answer code, if it answered
    std::string name;
    std::string message;
    std::string hint;
};

complaint explain(const vellb::refused &error);
complaint explain(const vellb::fault &error);

// The document as text, on one line or many; bytes that are no UTF-8 are replaced.
std::string dumped(const nlohmann::ordered_json &document, bool one_line = false);

} // namespace vellbctl
