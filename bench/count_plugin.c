/* Counts the instructions of a program that the emulator runs, in all of its threads: qemu-aarch64 -plugin …
 * Debian ships the emulator with this interface but not its header, hence the declarations: version 1 of the interface,
 * in which they are stable. */
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

typedef uint64_t plugin_id;
struct qemu_plugin_tb;
struct qemu_info;
enum registers { no_registers };

void qemu_plugin_register_vcpu_tb_trans_cb(plugin_id, void (*)(plugin_id, struct qemu_plugin_tb *));
void qemu_plugin_register_vcpu_tb_exec_cb(struct qemu_plugin_tb *, void (*)(unsigned, void *), enum registers, void *);
size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb *);
void qemu_plugin_register_atexit_cb(plugin_id, void (*)(plugin_id, void *), void *);

#define EXPORT __attribute__((visibility("default")))
EXPORT int qemu_plugin_version = 1;

static uint64_t instructions;

static void on_run(unsigned processor, void *count) {
  (void)processor;
  __atomic_fetch_add(&instructions, (uintptr_t)count, __ATOMIC_RELAXED);
}

/* Each block of code once, before it runs for the first time. */
static void on_translation(plugin_id id, struct qemu_plugin_tb *block) {
  (void)id;
  qemu_plugin_register_vcpu_tb_exec_cb(block, on_run, no_registers, (void *)qemu_plugin_tb_n_insns(block));
}

static void on_exit(plugin_id id, void *nothing) {
  (void)id;
  (void)nothing;
  fprintf(stderr, "Collected : %llu\n", (unsigned long long)instructions);
}

EXPORT int qemu_plugin_install(plugin_id id, const struct qemu_info *info, int argc, char **argv) {
  (void)info;
  (void)argc;
  (void)argv;
  qemu_plugin_register_vcpu_tb_trans_cb(id, on_translation);
  qemu_plugin_register_atexit_cb(id, on_exit, NULL);
  return 0;
}
