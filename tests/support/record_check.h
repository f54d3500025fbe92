// The whole-structure check of a port's records, for when nobody is in the stack: every record is
// in one bucket, the right one, and on exactly one list of its server; or in no bucket and on the
// reuse list. Lists are consistent, counts agree, and no two records have one key.
#pragma once

#include "lb_nat.h"
#include "lb_port.h"
#include "lb_sel_affinity.h"
#include "lb_sel_connection.h"
#include "lb_server.h"

#include <gtest/gtest.h>
#include <set>
#include <string>
#include <vector>

namespace records
{

// The bytes of a record's key.
template <class Key> std::string text_of(const Key &key)
{
    return {reinterpret_cast<const char *>(&key), sizeof(key)};
}
inline std::string keyof(const lbsel_cr_obj_t *cr)
{
    return text_of(cr->crkey);
}
inline std::string keyof(const lbsel_ar_obj_t *ar)
{
    return text_of(ar->arkey);
}

template <class Record> std::vector<Record *> all(lbsel_pool_t &pool)
{
    std::vector<Record *> out;
    lbsel_pool_foreach(
        &pool,
        [](void *record, void *into) {
            static_cast<std::vector<Record *> *>(into)->push_back(static_cast<Record *>(record));
        },
        &out);
    return out;
}

inline bool on_a_list_of(const lbsel_cr_obj_t *cr, const lbsrv_obj_t *server)
{
    const lbll_list_t *list = cr->expirelist._list;
    switch (cr->state) {
    case LBSEL_CR_STATE_PREEST: return list == &server->sel.preest;
    case LBSEL_CR_STATE_ACTIVE: return list == &server->sel.active;
    case LBSEL_CR_STATE_FIN:
    case LBSEL_CR_STATE_RST: return list == &server->sel.fin;
    default: return false;
    }
}
inline bool on_a_list_of(const lbsel_ar_obj_t *ar, const lbsrv_obj_t *server)
{
    return ar->expirelist._list == &server->sel.arlist;
}

// A record owns the port that it names, on its own server's return address, or none.
inline void check_natport(const lbsel_cr_obj_t *cr)
{
    const lbsrv_obj_t *server = cr->server;
    if (server == nullptr || server->retaddrobj == nullptr) {
        EXPECT_EQ(cr->natkey.natport, 0);
        return;
    }
    if (cr->natkey.natport < EXC_EPT_FIRSTPORT) {
        return; // a partner said so: a port that is nobody's
    }
    EXPECT_TRUE(lb_ept_owns(&server->retaddrobj->ept, cr->natkey.natport, cr));
}
inline void check_natport(const lbsel_ar_obj_t * /*ar*/) {}

// The other way round: whose every port is.
inline void check_natports(lb_retaddr_obj_t *retaddr)
{
    for (int slot = 0; slot < EXC_EPT_SLOTS; slot++) {
        const lbsel_cr_obj_t *cr = retaddr->ept.ucBusyPorts[slot];
        if (cr != nullptr) {
            EXPECT_EQ(cr->natkey.natport, slot + EXC_EPT_FIRSTPORT);
            EXPECT_NE(cr->htnode._list, nullptr) << "a port of a record that is in no table";
        }
    }
}

// How many records are in the table, and on servers' lists.
template <class Record, class Table> int check(Table &table)
{
    int listed = 0;
    int reusable = 0;
    std::set<std::string> keys;
    for (Record *record : all<Record>(table.pool)) {
        check_natport(record);
        if (record->htnode._list == nullptr) {
            EXPECT_EQ(record->expirelist._list, &table.pool.reuse)
                << "in neither, and not reusable";
            EXPECT_EQ(record->server, nullptr) << "a retired record names a server";
            reusable++;
            continue;
        }
        listed++;
        const int bucket = _lbht_hash(&table.lookup, nullptr, record);
        EXPECT_EQ(record->htnode._list, &table.bucket[bucket]) << "in a wrong bucket";
        if (record->server == nullptr) {
            ADD_FAILURE() << "a record in the table has no server";
            continue;
        }
        EXPECT_EQ(record->server->sel.removed, 0) << "a record names a removed server";
        EXPECT_TRUE(on_a_list_of(record, record->server)) << "on a wrong list";
        EXPECT_TRUE(keys.insert(keyof(record)).second) << "two records for one key";
    }
    int inbuckets = 0;
    for (lbht_bucket_t &bucket : table.bucket) {
        EXPECT_EQ(_lbll_debug_consistencycheck(&bucket), 0);
        inbuckets += lbll_size(&bucket);
    }
    EXPECT_EQ(inbuckets, listed);
    EXPECT_EQ(_lbll_debug_consistencycheck(&table.pool.reuse), 0);
    EXPECT_EQ(lbll_size(&table.pool.reuse), reusable);
    return listed;
}

// The sizes of lists, each of them whole.
inline int sizes(std::initializer_list<lbll_list_t *> lists)
{
    int sum = 0;
    for (lbll_list_t *list : lists) {
        EXPECT_EQ(_lbll_debug_consistencycheck(list), 0);
        sum += lbll_size(list);
    }
    return sum;
}

// Both tables of a port. The lists of its servers hold as many records as the tables say.
inline void check_port(lbport_obj_t *port)
{
    void *found[2 * LB_SNAPSHOT_MAX];
    const int servers =
        lbll_selectn(&port->serverlist, found, 2 * LB_SNAPSHOT_MAX, lbll_filter_true, nullptr);
    int connections = 0;
    int clients = 0;
    for (int i = 0; i < servers; i++) {
        auto &sel = static_cast<lbsrv_obj_t *>(found[i])->sel;
        connections += port->ct != nullptr ? sizes({&sel.preest, &sel.active, &sel.fin}) : 0;
        clients += port->at != nullptr ? sizes({&sel.arlist}) : 0;
    }
    if (port->ct != nullptr) {
        EXPECT_EQ(check<lbsel_cr_obj_t>(*static_cast<lbsel_ct_obj_t *>(port->ct)), connections);
    }
    if (port->at != nullptr) {
        const int listed = check<lbsel_ar_obj_t>(*static_cast<lbsel_at_obj_t *>(port->at));
        // The records of a partner's servers are in its table, too.
        const bool shared = port->addable.crossport != lbport_number(port);
        EXPECT_TRUE(shared ? listed >= clients : listed == clients) << listed << " " << clients;
    }
}

} // namespace records
