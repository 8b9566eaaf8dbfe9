/*
 * The appliance's platform interface: everything that the relay library asks of the machine.
 *
 * An appliance supplies these functions from its own system library; platform/linux supplies them
 * on any Linux. Unless told otherwise a function
 * - blocks only for file access;
 * - neither keeps nor owns what it is passed, and writes its outputs only on success;
 * - ends every text that it writes with a zero byte. A value or a title is cut to the size given in
 *   bytes; what would be useless or misleading when cut (a name to look up, an address, a
 *   credential) is a failure when it does not fit;
 * - returns < 0 on failure. TLIBCErrGet() then gives a number of <errno.h>. After running out of
 *   memory errno itself is ENOMEM too, also where 0 is all that the caller gets.
 */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/* One network interface. */
struct _tag_TLIB_NETIF {
    char szName[16];        /* interface name, such as "eth0" */
    char szIp[46];          /* IPv4 address in dotted text; empty: none */
    char szMask[46];        /* netmask in dotted text; empty: none */
    int nState;             /* 2: up; any other: down */
    unsigned char rgMac[6]; /* hardware address; zeros: none */
};

/* The settings of one dynamic DNS provider. */
struct _tag_ZARO_DDNS {
    char szProvider[128]; /* name of the provider, as in the settings */
    char szHostname[256]; /* host name registered with the provider */
};

/* A list of texts. */
typedef struct _tag_TLIB_SZLIST {
    int nItem;       /* how many */
    char** rgszItem; /* the texts; read them with TLIBCSzListGet */
} TLIB_SZLIST;

/* One service that the firewall knows. */
typedef struct _tag_ZARO_FW_SERVICE {
    char szName[64];     /* name to look it up by; never empty */
    unsigned int nTcp;   /* how many TCP ports it opens */
    unsigned int nUdp;   /* how many UDP ports it opens */
    char szSection[64];  /* where the translation of its title is: section ... */
    char szKey[64];      /* ... and key; either may be empty */
    char szTitle[128];   /* plain title; may be empty */
    TLIB_SZLIST* pPorts; /* its ports in decimal; may be NULL */
} ZARO_FW_SERVICE;

/* All services that the firewall knows; made by ZAROFwServiceEnum. */
typedef struct _tag_ZARO_FW_SERVICE_LIST ZARO_FW_SERVICE_LIST;

/* Reads `key` of a file of key=value or key="value" lines; of several the last counts. Returns the
 * length of the text in `buf` (> 0); 0, with an empty text there, when the value is empty or
 * missing; < 0 when the file can't be read. `flags` is 0. */
int TLIBCFileGetKeyValue(const char* file, const char* key, char* buf, int size, int flags);

/* Sets `key` in the platform's settings file. Replaces the file atomically and keeps its comments,
 * order, mode and owner. A key consists of letters, digits, '_', '-' and '.'; a value has no quote
 * and no control character. Waits for writers in other processes, 10 s at most. Returns >= 0; < 0
 * on failure, with the file as it was. */
int TLIBCINFOSetKeyValue(const char* key, const char* value);

/* Finds the first section of an INI file in which a key has `value`, and gives the names of section
 * and key; the key's may be cut. Returns >= 0 when found, else < 0. */
int TLIBCFileGetSectionByValue(const char* file, const char* value, char* section, int cbSection,
                               char* key, int cbKey);

/* Reads `key` of `section` of an INI file; of several the last counts. Returns >= 0 when found,
 * else < 0. */
int TLIBCFileGetSectionValue(const char* file, const char* section, const char* key, char* buf,
                             int size);

/* Runs `program` (a path) with the arguments that follow, at most 62, ended by NULL. Waits for its
 * end and kills it after 10 s. Returns its exit status; < 0 when it could not run or was ended by a
 * signal. */
int TLIBCExec(const char* program, ...);

/* Whether this model has a capability, such as "supportddns": 1 when it has, 0 when it has not or
 * the settings can't be read. */
int TLIBCSupportGet(const char* capability);

/* The entry at `index`, counted from 0; NULL outside the list. It lives as long as the list. */
const char* TLIBCSzListGet(const TLIB_SZLIST* list, int index);

/* The last platform error of this thread, a number of <errno.h>; 0: none yet. Success does not
 * reset it. */
unsigned int TLIBCErrGet(void);

/* Path of the router's port-forwarding file, or NULL. Valid until the thread's next call. */
const char* TLIBServiceRouterBasepathGet(void);

/* Fills at most `max` records, one per interface. `selector` 2: every interface with an IPv4
 * address except the loopback. Returns the number of records filled; <= 0 on failure. */
int TLIBNetGetInterfaceInfo(struct _tag_TLIB_NETIF* records, int max, int selector);

/* Fills `record` for one interface. "eth0" stands for the machine's first Ethernet port; the record
 * has its real name. `flags` is 0. Returns >= 0 when the interface has a hardware address, with or
 * without an IPv4 address; else < 0. */
int ZARONetIFGetInfo(const char* ifname, struct _tag_TLIB_NETIF* record, int flags);

/* Whether PPPoE link `index`, counted from 0, is connected: 1 when it is, any other result when
 * not. */
int ZAROPPPoECheckStatusEx(int index);

/* Gives IPv4 address and netmask of PPPoE link 0 in dotted text. Returns >= 0; < 0 on failure. */
int ZAROPPPoeNetInfoGet(char* ip, int cbIp, char* mask, int cbMask);

/* Gives the IPv4 address of the default gateway in dotted text. Returns >= 0; < 0 without one. */
int ZARONetDefaultGatewayGet(char* buf, int size);

/* Gives the settings of one dynamic DNS provider. Returns >= 0; < 0 on failure. */
int ZARODDNSConfigGet(const char* provider, struct _tag_ZARO_DDNS* record);

/* Gives every service that the firewall knows. Returns their number; the caller then releases the
 * list with ZAROFwServiceFree. <= 0 on failure, without a list. */
int ZAROFwServiceEnum(ZARO_FW_SERVICE_LIST** list);

/* The service called `name`, or NULL. It lives as long as the list. */
const ZARO_FW_SERVICE* ZAROFWServiceFind(const ZARO_FW_SERVICE_LIST* list, const char* name);

/* Releases a list; NULL is allowed. */
void ZAROFwServiceFree(ZARO_FW_SERVICE_LIST* list);

/* Gives the device's serial number and the token that goes with it; the first call may make them,
 * for good. Returns >= 0; < 0 on failure. */
int ZAROWstokenGetToken(char* serial, int cbSerial, char* token, int cbToken);

/* Gives the token that goes with `serial` on this device. Returns >= 0; < 0 on failure. */
int ZAROWstokenGenerateToken(const char* serial, char* token, int cbToken);

/* Whether the device is one of a high-availability pair: non-zero when it is, 0 when not or on
 * failure. */
int ZAROHAIsRunning(void);

/* Gives the shared MAC address of the pair, hex digits in pairs joined by colons. `index`: which of
 * the pair's addresses, counted from 0; the library asks for 0 only, and others may fail. Returns
 * >= 0; < 0 on failure. */
int ZAROHAGetMacDL(int index, char* mac, int cbMac);

#ifdef __cplusplus
}
#endif
