/*
 * qemu TCG plug-in: counts the aarch64 instructions a guest retires, and among
 * them the loads and the stores (instructions, not bytes: an LD3 of 48 bytes
 * is one load). Each block's three numbers are worked out once, when qemu
 * translates it, and added to the totals every time the block runs. At exit it
 * writes "instructions N loads N stores N" to the file given as out=PATH, or to
 * qemu's log.
 *
 * Counts are atomic: the guest's threads run on several host threads at once.
 * A block left in the middle (a fault, a signal) still counts whole; that
 * happens at start-up and exit, which a count by differences cancels.
 */
#include <glib.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "qemu-plugin.h"

QEMU_PLUGIN_EXPORT int qemu_plugin_version = QEMU_PLUGIN_VERSION;

static uint64_t instructions, loads, stores;
static char* outPath;

struct BlockCounts {
    uint64_t instructions, loads, stores;
};

enum Access { NONE, LOAD, STORE };

/* The loads-and-stores encoding group of A64 (op0 = x1x0): which instructions
 * read memory and which write it. Prefetches read nothing the program sees and
 * count as neither; a swap or compare-and-swap counts as a load. */
static enum Access classify(uint32_t insn)
{
    if ((insn & 0x0a000000u) != 0x08000000u)
        return NONE;
    const uint32_t l22 = (insn >> 22) & 1u;
    if ((insn & 0xbf800000u) == 0x0c000000u || (insn & 0xbf800000u) == 0x0c800000u || /* LD/ST multiple */
        (insn & 0xbf800000u) == 0x0d000000u || (insn & 0xbf800000u) == 0x0d800000u)   /* LD/ST single */
        return l22 ? LOAD : STORE;
    if ((insn & 0x3f000000u) == 0x08000000u) /* exclusive and ordered */
        return l22 ? LOAD : STORE;
    if ((insn & 0x3b000000u) == 0x18000000u) /* literal: LDR, LDRSW, PRFM */
        return ((insn >> 30) == 3u && !((insn >> 26) & 1u)) ? NONE : LOAD;
    if ((insn & 0x38000000u) == 0x28000000u) /* pairs */
        return l22 ? LOAD : STORE;
    if ((insn & 0x38000000u) == 0x38000000u) { /* single register, every addressing form */
        const uint32_t size = insn >> 30, vector = (insn >> 26) & 1u, opc = (insn >> 22) & 3u;
        if (!vector && ((insn >> 24) & 1u) == 0 && ((insn >> 21) & 1u) && ((insn >> 10) & 3u) == 0)
            return LOAD; /* atomic memory operations */
        if (vector)
            return (opc & 1u) ? LOAD : STORE; /* opc 10 with size 00 is STR Q, 11 is LDR Q */
        if (size == 3u && opc == 2u)
            return NONE; /* PRFM */
        return opc == 0 ? STORE : LOAD;
    }
    return NONE;
}

static void blockExecuted(unsigned int vcpu, void* data)
{
    (void)vcpu;
    const struct BlockCounts* counts = data;
    __atomic_fetch_add(&instructions, counts->instructions, __ATOMIC_RELAXED);
    __atomic_fetch_add(&loads, counts->loads, __ATOMIC_RELAXED);
    __atomic_fetch_add(&stores, counts->stores, __ATOMIC_RELAXED);
}

/* Blocks are translated again after a flush; their counts stay allocated until
 * exit, which costs a few bytes per translation. */
static void blockTranslated(qemu_plugin_id_t id, struct qemu_plugin_tb* tb)
{
    (void)id;
    struct BlockCounts* counts = g_new0(struct BlockCounts, 1);
    const size_t n = qemu_plugin_tb_n_insns(tb);
    counts->instructions = n;
    for (size_t i = 0; i < n; ++i) {
        uint32_t word;
        memcpy(&word, qemu_plugin_insn_data(qemu_plugin_tb_get_insn(tb, i)), sizeof word);
        const enum Access access = classify(word);
        counts->loads += access == LOAD;
        counts->stores += access == STORE;
    }
    qemu_plugin_register_vcpu_tb_exec_cb(tb, blockExecuted, QEMU_PLUGIN_CB_NO_REGS, counts);
}

static void atExit(qemu_plugin_id_t id, void* data)
{
    (void)id;
    (void)data;
    char line[128];
    snprintf(line, sizeof line, "instructions %llu loads %llu stores %llu\n", (unsigned long long)instructions,
             (unsigned long long)loads, (unsigned long long)stores);
    FILE* out = outPath ? fopen(outPath, "w") : NULL;
    if (out) {
        fputs(line, out);
        fclose(out);
    } else {
        qemu_plugin_outs(line);
    }
}

QEMU_PLUGIN_EXPORT int qemu_plugin_install(qemu_plugin_id_t id, const qemu_info_t* info, int argc, char** argv)
{
    if (strcmp(info->target_name, "aarch64") != 0)
        return -1;
    for (int i = 0; i < argc; ++i) {
        if (strncmp(argv[i], "out=", 4) == 0)
            outPath = g_strdup(argv[i] + 4);
        else
            return -1;
    }
    qemu_plugin_register_vcpu_tb_trans_cb(id, blockTranslated);
    qemu_plugin_register_atexit_cb(id, atExit, NULL);
    return 0;
}
