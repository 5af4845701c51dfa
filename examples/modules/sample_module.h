// SPDX-License-Identifier: MIT
//
// The frame of a sample protocol module: its state, its start and stop. A module is one source file that
// includes this, provides `receive`, and ends with its record:
//
//     static const sample_protocol_module gArp = SAMPLE_PROTOCOL("network/arp");
//     const void *const modules[] = {&gArp, NULL};
//
// A module that needs more than the plain operations writes its record out. One that has further files
// includes `sample_packet.h` in those.

#ifndef SAMPLE_MODULE_H
#define SAMPLE_MODULE_H

#include "sample_packet.h"

#define SAMPLE_UPPERS 256  // one place for each IP protocol number; EtherTypes share them

// Whom the packets of one key go to, as the roster has told.
typedef struct sample_upper {
    uint32_t key;
    uint8_t known;                         // not 0: the roster was asked
    const sample_protocol_module *module;  // null: nobody
} sample_upper;

zarn_util_module_t *gUtil;
sample_counts gCounts;
uint8_t gProfiled;
static sample_upper gUppers[SAMPLE_UPPERS];

static void receive(zarn_data_t *data, const sample_network_header *network);

static inline int32_t start_or_stop(int32_t op) {
    int32_t status;
    switch (op) {
        case MODULE_START:
            status = kern_module_acquire(ZARN_UTIL_MODULE_NAME, (void **)&gUtil);
            if (status == 0) gProfiled = gUtil->get_config_bool("profile", 0);
            return status;
        case MODULE_STOP:
            return kern_module_release(ZARN_UTIL_MODULE_NAME);
        default:
            return -1;
    }
}

// Nothing is kept for an endpoint.
static inline int32_t init_protocol(proto_node *node) {
    (void)node;
    return 0;
}

static inline int32_t uninit_protocol(proto_node *node) {
    (void)node;
    return 0;
}

static inline const sample_protocol_module *upper_at(int32_t number) {
    for (int i = 0; i < SAMPLE_UPPERS; i++) {
        if (gUppers[i].module != NULL && number-- == 0) return gUppers[i].module;
    }
    return NULL;
}

// The protocol that packets with `key` go to, or null. `look_up` asks the roster, once for each key as long
// as no other key has its place.
static inline const sample_protocol_module *find_upper(uint32_t key,
                                                       int32_t (*look_up)(uint32_t key, void **table)) {
    sample_upper *place = &gUppers[(key ^ key >> 8) % SAMPLE_UPPERS];
    if (place->known && place->key == key) return place->module;
    void *table = NULL;
    int32_t status = look_up(key, &table);
    if (status != 0 && status != ERR_NO_STACK && status != ERR_NO_FAMILY) gCounts.unloadable++;
    const sample_protocol_module *module = (const sample_protocol_module *)table;
    if (module != NULL && module->protocol.head.flags != SAMPLE_PROTOCOL_FLAGS) {
        kern_log("%s doesn't receive packets: those that the settings have for it go to nobody\n",
                 module->protocol.head.name);
        module = NULL;
    }
    // What goes to nobody, whoever has sent it, doesn't take the place of what goes to somebody.
    if (module != NULL || place->module == NULL) *place = (sample_upper){key, 1, module};
    return module;
}

static inline void take_counts(sample_counts *counts) {
    *counts = gCounts;
    gCounts = (sample_counts){0};
}

static inline void forget_uppers(void) {
    for (int i = 0; i < SAMPLE_UPPERS; i++)
        gUppers[i] = (sample_upper){0};
}

#define SAMPLE_PROTOCOL(name)                                                                              \
    {                                                                                                      \
        {{name, SAMPLE_PROTOCOL_FLAGS, start_or_stop}, init_protocol, uninit_protocol}, receive, upper_at, \
            take_counts, forget_uppers, NULL, NULL                                                         \
    }

#endif
