// SPDX-License-Identifier: GPL-2.0
/*
 * Adds one partition to an MTD master device that has none.
 *
 * The kernel's NAND simulator registers its chip as a bare master, and the
 * distribution kernels the VM tier boots have neither command-line partitions
 * nor the block layer's partition ioctl on an MTD device. kvard looks for a
 * partition by name in /proc/mtd, so this module carves one out with
 * mtd_add_partition(), the same call the kernel's own partition parsers use.
 */
#include <linux/err.h>
#include <linux/module.h>
#include <linux/moduleparam.h>
#include <linux/mtd/mtd.h>
#include <linux/mtd/partitions.h>

static int master;
module_param(master, int, 0444);
MODULE_PARM_DESC(master, "index of the master MTD device (default 0)");

static char *name = "tm";
module_param(name, charp, 0444);
MODULE_PARM_DESC(name, "name of the new partition (default \"tm\")");

static unsigned long long offset;
module_param(offset, ullong, 0444);
MODULE_PARM_DESC(offset, "start of the partition in bytes, a whole number of erase blocks");

static unsigned long long size;
module_param(size, ullong, 0444);
MODULE_PARM_DESC(size, "length of the partition in bytes, a whole number of erase blocks; 0: to the end");

static struct mtd_info *parent;
static int child = -1;

static int __init tmpart_init(void)
{
	struct mtd_info *mtd;
	long long length;
	int err;

	parent = get_mtd_device(NULL, master);
	if (IS_ERR(parent)) {
		pr_err("tmpart: no MTD device %d\n", master);
		return PTR_ERR(parent);
	}
	if (offset >= parent->size) {
		err = -EINVAL;
		goto out;
	}
	length = size ? (long long)size : (long long)(parent->size - offset);
	err = mtd_add_partition(parent, name, offset, length);
	if (err) {
		pr_err("tmpart: %s: adding \"%s\" at %llu, %lld bytes: %d\n",
		       parent->name, name, offset, length, err);
		goto out;
	}
	mtd = get_mtd_device_nm(name);
	if (IS_ERR(mtd)) {
		err = PTR_ERR(mtd);
		goto out;
	}
	child = mtd->index;
	put_mtd_device(mtd);
	pr_info("tmpart: mtd%d \"%s\" on mtd%d at %llu, %lld bytes\n",
		child, name, master, offset, length);
	return 0;
out:
	put_mtd_device(parent);
	return err;
}

static void __exit tmpart_exit(void)
{
	if (child >= 0)
		mtd_del_partition(parent, child);
	put_mtd_device(parent);
}

module_init(tmpart_init);
module_exit(tmpart_exit);
MODULE_DESCRIPTION("A named partition on an MTD master, for kvard's VM tests");
MODULE_LICENSE("GPL");
