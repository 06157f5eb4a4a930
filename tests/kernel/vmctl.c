/*
 * vmctl: the small tool the VM's init uses to drive kvard. Linked statically,
 * since the initramfs carries no C library of its own beyond what kvard needs.
 *
 *   vmctl settime EPOCH                set the system clock to EPOCH.000
 *   vmctl step EPOCH CODE              set the clock, send datagram CODE (no body),
 *                                      wait for the reply and print it; fail when the
 *                                      clock left that second before the datagram went out
 *   vmctl sim EPOCH TX RX              TM_MSG_SIM_INPUT with these values, then TM_MSG_SIM_WAKE
 *   vmctl waitport SECONDS             until 127.0.0.1:22724 is bound (from /proc/net/udp)
 *   vmctl frames IFACE COUNT SIZE      send COUNT raw Ethernet frames of SIZE bytes on IFACE
 *   vmctl store STORE OBJECT LINE      replace the store's OBJECT file by the one LINE, under
 *                                      the store's lock (flock on STORE/.lock), by rename
 *   vmctl probe DEVICE GOOD BAD        how the MTD driver answers kvard's requests and some
 *                                      misuse, on erase blocks GOOD and GOOD+1 (erased and
 *                                      programmed here) and the bad block BAD: one line each
 *
 * Every datagram waits at most 20 s for its reply: a wake with a flash write
 * under emulation is slow, a lost daemon must not hang the boot.
 */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/if_packet.h>
#include <mtd/mtd-user.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

enum { kPort = 22724, kSimInput = 7254, kSimWake = 5640 };

static long long Number(const char *text)
{
	char *end;
	errno = 0;
	long long v = strtoll(text, &end, 10);
	if (errno || end == text || *end) {
		fprintf(stderr, "vmctl: not a number: %s\n", text);
		exit(2);
	}
	return v;
}

static int SetTime(long long epoch)
{
	struct timespec ts = {.tv_sec = (time_t)epoch, .tv_nsec = 0};
	if (clock_settime(CLOCK_REALTIME, &ts) != 0) {
		perror("vmctl: clock_settime");
		return 1;
	}
	return 0;
}

static void Put16(unsigned char *p, unsigned v) { p[0] = v & 0xff; p[1] = (v >> 8) & 0xff; }
static void Put32(unsigned char *p, uint32_t v) { for (int i = 0; i < 4; ++i) p[i] = (v >> (8 * i)) & 0xff; }
static void Put64(unsigned char *p, uint64_t v) { for (int i = 0; i < 8; ++i) p[i] = (v >> (8 * i)) & 0xff; }

/* One datagram to the daemon; the reply word in *reply. 0 on success. */
static int Send(unsigned code, const unsigned char *body, unsigned length, int32_t *reply)
{
	unsigned char buf[8 + 64];
	Put16(buf, 0xA52D);
	Put16(buf + 2, code);
	Put16(buf + 4, length);
	Put16(buf + 6, 0);
	memcpy(buf + 8, body, length);
	int fd = socket(AF_INET, SOCK_DGRAM, 0);
	if (fd < 0) {
		perror("vmctl: socket");
		return 1;
	}
	struct timeval tv = {.tv_sec = 20};
	setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
	struct sockaddr_in to = {.sin_family = AF_INET, .sin_port = htons(kPort)};
	to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
	if (sendto(fd, buf, 8 + length, 0, (struct sockaddr *)&to, sizeof to) != (ssize_t)(8 + length)) {
		perror("vmctl: sendto");
		close(fd);
		return 1;
	}
	unsigned char in[16];
	ssize_t n = recv(fd, in, sizeof in, 0);
	close(fd);
	if (n != 4) {
		fprintf(stderr, "vmctl: no reply to code %u\n", code);
		return 1;
	}
	*reply = (int32_t)((uint32_t)in[0] | (uint32_t)in[1] << 8 | (uint32_t)in[2] << 16 | (uint32_t)in[3] << 24);
	return 0;
}

static int SameTime(long long epoch)
{
	time_t now = time(NULL);
	if ((long long)now != epoch) {
		fprintf(stderr, "vmctl: the clock moved on to %lld while the step at %lld ran\n",
			(long long)now, epoch);
		return 1;
	}
	return 0;
}

static int Step(long long epoch, unsigned code)
{
	int32_t reply;
	if (SetTime(epoch) || SameTime(epoch) || Send(code, NULL, 0, &reply))
		return 1;
	/* The daemon reads its clock once, as it takes the datagram; a reply in a
	 * later second only says that the work took long (flash under emulation). */
	time_t now = time(NULL);
	printf("%d%s\n", reply, (long long)now != epoch ? " (reply in a later second)" : "");
	return 0;
}

static int Sim(long long epoch, unsigned long long tx, unsigned long long rx)
{
	unsigned char body[28] = {0};
	Put32(body, (uint32_t)epoch);
	Put64(body + 8, tx);
	Put64(body + 16, rx);
	Put32(body + 24, 1); /* no printed line for each input */
	int32_t reply;
	if (Send(kSimInput, body, sizeof body, &reply) || reply != 1) {
		fprintf(stderr, "vmctl: simulated input refused\n");
		return 1;
	}
	if (Send(kSimWake, NULL, 0, &reply))
		return 1;
	printf("%d\n", reply);
	return 0;
}

static int PortBound(void)
{
	FILE *f = fopen("/proc/net/udp", "r");
	if (!f)
		return 0;
	char line[256];
	int found = 0;
	while (fgets(line, sizeof line, f))
		if (strstr(line, ":58C4 "))
			found = 1;
	fclose(f);
	return found;
}

static int WaitPort(long long seconds)
{
	for (long long i = 0; i < seconds * 20; ++i) {
		if (PortBound())
			return 0;
		usleep(50000);
	}
	fprintf(stderr, "vmctl: port %d not bound after %lld s\n", kPort, seconds);
	return 1;
}

static int Frames(const char *iface, long long count, long long size)
{
	if (size < ETH_ZLEN - 4 || size > ETH_FRAME_LEN) {
		fprintf(stderr, "vmctl: frame size %lld outside %d..%d\n", size, ETH_ZLEN - 4, ETH_FRAME_LEN);
		return 2;
	}
	int fd = socket(AF_PACKET, SOCK_RAW, 0);
	if (fd < 0) {
		perror("vmctl: packet socket");
		return 1;
	}
	struct sockaddr_ll to = {.sll_family = AF_PACKET, .sll_ifindex = (int)if_nametoindex(iface), .sll_halen = ETH_ALEN};
	if (!to.sll_ifindex) {
		fprintf(stderr, "vmctl: no interface %s\n", iface);
		close(fd);
		return 1;
	}
	/* A locally administered unicast to nobody, with the local experimental
	 * ethertype: no protocol of the VM answers it, so the counters move by
	 * exactly these frames. */
	unsigned char frame[ETH_FRAME_LEN] = {0x02, 0, 0, 0, 0, 0x01, 0x02, 0, 0, 0, 0, 0x02, 0x88, 0xb5};
	memcpy(to.sll_addr, frame, ETH_ALEN);
	for (long long i = 0; i < count; ++i)
		if (sendto(fd, frame, (size_t)size, 0, (struct sockaddr *)&to, sizeof to) != size) {
			perror("vmctl: sending a frame");
			close(fd);
			return 1;
		}
	close(fd);
	return 0;
}

static int Store(const char *store, const char *object, const char *line)
{
	char lock[256], temp[256], path[256];
	snprintf(lock, sizeof lock, "%s/.lock", store);
	snprintf(temp, sizeof temp, "%s/.%s.vmctl.tmp", store, object);
	snprintf(path, sizeof path, "%s/%s", store, object);
	int fd = open(lock, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
	if (fd < 0 || flock(fd, LOCK_EX) != 0) {
		perror(lock);
		return 1;
	}
	FILE *f = fopen(temp, "w");
	int ok = f && fprintf(f, "%s\n", line) > 0;
	if (f && fclose(f) != 0)
		ok = 0;
	if (!ok || rename(temp, path) != 0) {
		perror(path);
		ok = 0;
	}
	close(fd);
	return ok ? 0 : 1;
}

static const char *Outcome(long long r)
{
	return r < 0 ? strerrorname_np(errno) : "ok";
}

static long long WriteAt(int fd, long long offset, const unsigned char *data, size_t length)
{
	if (lseek(fd, offset, SEEK_SET) != offset)
		return -1;
	return write(fd, data, length);
}

static int Probe(const char *device, long long good, long long bad)
{
	int fd = open(device, O_RDWR);
	if (fd < 0) {
		perror(device);
		return 1;
	}
	struct mtd_info_user info;
	if (ioctl(fd, MEMGETINFO, &info) != 0) {
		perror("vmctl: MEMGETINFO");
		return 1;
	}
	printf("info type=%u writesize=%u erasesize=%u oobsize=%u\n", info.type, info.writesize, info.erasesize,
	       info.oobsize);
	long long block = info.erasesize, page = info.writesize, at = good * block;
	loff_t where = bad * block;
	printf("getbad-bad %d\n", ioctl(fd, MEMGETBADBLOCK, &where));
	where = info.size;
	int r = ioctl(fd, MEMGETBADBLOCK, &where);
	printf("getbad-past %s\n", r < 0 ? strerrorname_np(errno) : "ok");
	struct erase_info_user erase = {.start = (uint32_t)(bad * block), .length = (uint32_t)block};
	printf("erase-bad %s\n", Outcome(ioctl(fd, MEMERASE, &erase)));
	erase = (struct erase_info_user){.start = (uint32_t)(at + page), .length = (uint32_t)block};
	printf("erase-unaligned %s\n", Outcome(ioctl(fd, MEMERASE, &erase)));
	erase = (struct erase_info_user){.start = (uint32_t)at, .length = (uint32_t)(2 * block)};
	printf("erase-two %s\n", Outcome(ioctl(fd, MEMERASE, &erase)));

	unsigned char *buf = malloc((size_t)page), *back = malloc((size_t)page);
	if (!buf || !back)
		return 1;
	long long n = pread(fd, back, (size_t)page, at);
	int erased = n == page;
	for (long long i = 0; erased && i < page; ++i)
		erased = back[i] == 0xff;
	printf("read-erased %s\n", erased ? "ff" : "not-ff");
	memset(buf, 0xf0, (size_t)page);
	printf("program %s\n", Outcome(WriteAt(fd, at, buf, (size_t)page)));
	memset(buf, 0x3c, (size_t)page);
	printf("program-again %s\n", Outcome(WriteAt(fd, at, buf, (size_t)page)));
	n = pread(fd, back, (size_t)page, at);
	printf("program-again-reads %02x\n", n == page ? back[0] : 0xffu);
	memset(buf, 0x11, (size_t)page);
	printf("program-512 %s\n", Outcome(WriteAt(fd, at + page, buf, 512)));
	n = pread(fd, back, (size_t)page, at + page);
	printf("program-512-reads %02x %02x\n", n == page ? back[0] : 0u, n == page ? back[512] : 0u);
	printf("program-40 %s\n", Outcome(WriteAt(fd, at + 2 * page, buf, 40)));
	printf("program-unaligned %s\n", Outcome(WriteAt(fd, at + 3 * page + 100, buf, (size_t)page)));
	printf("program-past-end %s\n", Outcome(WriteAt(fd, info.size, buf, (size_t)page)));
	printf("program-bad %s\n", Outcome(WriteAt(fd, bad * block + page, buf, (size_t)page)));
	free(buf);
	free(back);
	close(fd);
	return 0;
}

int main(int argc, char **argv)
{
	if (argc == 3 && !strcmp(argv[1], "settime"))
		return SetTime(Number(argv[2]));
	if (argc == 4 && !strcmp(argv[1], "step"))
		return Step(Number(argv[2]), (unsigned)Number(argv[3]));
	if (argc == 5 && !strcmp(argv[1], "sim"))
		return Sim(Number(argv[2]), (unsigned long long)Number(argv[3]), (unsigned long long)Number(argv[4]));
	if (argc == 3 && !strcmp(argv[1], "waitport"))
		return WaitPort(Number(argv[2]));
	if (argc == 5 && !strcmp(argv[1], "frames"))
		return Frames(argv[2], Number(argv[3]), Number(argv[4]));
	if (argc == 5 && !strcmp(argv[1], "store"))
		return Store(argv[2], argv[3], argv[4]);
	if (argc == 5 && !strcmp(argv[1], "probe"))
		return Probe(argv[2], Number(argv[3]), Number(argv[4]));
	fprintf(stderr, "usage: vmctl settime|step|sim|waitport|frames|store|probe ...\n");
	return 2;
}
