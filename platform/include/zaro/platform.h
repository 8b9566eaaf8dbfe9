/*
 * The appliance's platform interface: everything that the relay library asks of the machine.
 *
 * An appliance supplies these functions from its own system library; platform/linux supplies them
 * on any Linux. Unless told otherwise a function blocks only for file access, writes its outputs
 * only on success and takes no ownership of what it is passed. Every text that it writes ends with
 * a zero byte: a value or a title is cut to the size given, but what would be useless or misleading
 * when cut (a name to look up, an address, a credential) and does not fit is a failure. On failure
 * TLIBCErrGet() tells why, with a number of <errno.h>.
 */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/* One network interface. */
struct _tag_TLIB_NETIF {
    char szName[16];        /* interface name, e.g. "eth0" */
    char szIp[46];          /* IPv4 address in dotted text */
    char szMask[46];        /* netmask in dotted text */
    int nState;             /* 2 = up */
    unsigned char rgMac[6]; /* hardware address */
};

/* The settings of one dynamic DNS provider. */
struct _tag_ZARO_DDNS {
    char szProvider[128];
    char szHostname[256]; /* host name registered with the provider */
};

/* A list of texts. */
typedef struct _tag_TLIB_SZLIST {
    int nItem;
    char** rgszItem;
} TLIB_SZLIST;

/* One service that the firewall knows. */
typedef struct _tag_ZARO_FW_SERVICE {
    char szName[64];
    unsigned int nTcp;  /* how many TCP ports it opens */
    unsigned int nUdp;  /* how many UDP ports it opens */
    char szSection[64]; /* translation of its title: section and key, may be empty */
    char szKey[64];
    char szTitle[128];   /* plain title */
    TLIB_SZLIST* pPorts; /* its ports in decimal; may be NULL */
} ZARO_FW_SERVICE;

/* All services that the firewall knows; made by ZAROFwServiceEnum. */
typedef struct _tag_ZARO_FW_SERVICE_LIST ZARO_FW_SERVICE_LIST;

/* Reads `key` of a file of key=value or key="value" lines, of which the last one counts. Returns
 * the length of what is in `buf` then (> 0); 0, with an empty text there, when the value is empty
 * or missing; < 0 when the file can't be read. `flags` is 0. */
int TLIBCFileGetKeyValue(const char* file, const char* key, char* buf, int size, int flags);

/* Sets `key` in the platform's settings file, replacing the file atomically and keeping its
 * comments, order, mode and owner. A key is made of letters, digits, '_', '-' and '.'; a value
 * holds no quote and no control character. Writers in other processes are waited for, at most 10 s.
 * Returns >= 0; < 0 on failure, and then the file is as it was. */
int TLIBCINFOSetKeyValue(const char* key, const char* value);

/* Finds the first section of an INI file in which some key holds `value`, and gives the section's
 * and the key's name. Returns >= 0 when one does, else < 0. */
int TLIBCFileGetSectionByValue(const char* file, const char* value, char* section, int cbSection,
                               char* key, int cbKey);

/* Reads `key` of `section` of an INI file. Returns >= 0 when found, else < 0. */
int TLIBCFileGetSectionValue(const char* file, const char* section, const char* key, char* buf,
                             int size);

/* Runs `program` with the arguments that follow (after the program's own name), ended by NULL, and
 * waits for its end, 10 s at most: then it is killed. Returns its exit status; < 0 when it could
 * not run or ended by a signal. */
int TLIBCExec(const char* program, ...);

/* Whether this model has a capability, e.g. "supportddns": non-zero when it has. */
int TLIBCSupportGet(const char* capability);

/* The entry at `index`, or NULL. It lives as long as the list. */
const char* TLIBCSzListGet(const TLIB_SZLIST* list, int index);

/* The last platform error of this thread. */
unsigned int TLIBCErrGet(void);

/* Path of the router's port-forwarding file. The text stays until the thread asks again. */
const char* TLIBServiceRouterBasepathGet(void);

/* Fills at most `max` records, one for each interface. `selector` 2: every one with an IPv4
 * address but the loopback. Returns the number of records filled; <= 0 on failure. */
int TLIBNetGetInterfaceInfo(struct _tag_TLIB_NETIF* records, int max, int selector);

/* Fills `record` for one interface; "eth0" stands for the machine's first Ethernet port whatever
 * its name is, and the record tells that name. `flags` is 0. Returns >= 0 when it exists and has a
 * hardware address, else < 0. */
int ZARONetIFGetInfo(const char* ifname, struct _tag_TLIB_NETIF* record, int flags);

/* Whether PPPoE link `index` is connected: 1 when it is. */
int ZAROPPPoECheckStatusEx(int index);

/* Address and netmask of the PPPoE link. Returns < 0 on failure. */
int ZAROPPPoeNetInfoGet(char* ip, int cbIp, char* mask, int cbMask);

/* Address of the default gateway. Returns < 0 when there is none. */
int ZARONetDefaultGatewayGet(char* buf, int size);

/* Settings of one dynamic DNS provider. Returns < 0 on failure. */
int ZARODDNSConfigGet(const char* provider, struct _tag_ZARO_DDNS* record);

/* Gives every service that the firewall knows. Returns their number, and then the caller releases
 * the list with ZAROFwServiceFree; <= 0 on failure. */
int ZAROFwServiceEnum(ZARO_FW_SERVICE_LIST** list);

/* The definition called `name`, or NULL. It lives as long as the list. */
const ZARO_FW_SERVICE* ZAROFWServiceFind(const ZARO_FW_SERVICE_LIST* list, const char* name);

/* Releases a list; NULL is allowed. */
void ZAROFwServiceFree(ZARO_FW_SERVICE_LIST* list);

/* The device's serial number and the token that goes with it. Returns < 0 on failure. */
int ZAROWstokenGetToken(char* serial, int cbSerial, char* token, int cbToken);

/* The token that goes with `serial`. Returns < 0 on failure. */
int ZAROWstokenGenerateToken(const char* serial, char* token, int cbToken);

/* Whether the device is one of a high-availability pair: non-zero when it is. */
int ZAROHAIsRunning(void);

/* The pair's shared MAC address, pairs of hex digits joined by colons. Returns < 0 on failure. */
int ZAROHAGetMacDL(int index, char* mac, int cbMac);

#ifdef __cplusplus
}
#endif
