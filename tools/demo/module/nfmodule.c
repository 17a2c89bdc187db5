// SPDX-License-Identifier: GPL-2.0
/*
 * The demo agent's kernel module, which the watchdog loads by the name
 * "nfmodule" (scripts/vm-test.sh installs it on a real kernel). It only says
 * when it comes and goes, so that the kernel log tells every load and unload,
 * and shows its one parameter.
 */
#include <linux/init.h>
#include <linux/module.h>

static char *owner = "nobody";
module_param(owner, charp, 0444);
MODULE_PARM_DESC(owner, "who asked for the module (shown under /sys/module/nfmodule/parameters/)");

static int __init nfmodule_init(void)
{
	pr_info("nfmodule: loaded, owner=%s\n", owner);
	return 0;
}

static void __exit nfmodule_exit(void)
{
	pr_info("nfmodule: unloaded\n");
}

module_init(nfmodule_init);
module_exit(nfmodule_exit);
MODULE_DESCRIPTION("Stand-in for the agent's kernel module");
MODULE_LICENSE("GPL");
