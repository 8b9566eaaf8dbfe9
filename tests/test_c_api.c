/* A C program of the appliance. Its root, made by the caller, publishes "web" under the server id
 * 044756784, which belongs to the device. Ends with 0, or with the line of the first fault. */
#include <string.h>

#include <zarorelayd/zarorelayd.h>

#define EXPECT(condition)                                                                          \
    if (!(condition)) {                                                                            \
        return __LINE__;                                                                           \
    }

int main(void) {
    char id[16] = "old";
    EXPECT(TLIBRelaydGetServerId(NULL, id, sizeof id) == 1);
    EXPECT(strcmp(id, "044756784") == 0);
    EXPECT(TLIBRelaydVerifyServerId(NULL) == 1);
    EXPECT(TLIBRelaydVerifyServerId("044756785") == 0);
    EXPECT(TLIBRelaydLogStop() == 0);
    EXPECT(TLIBRelaydLogStart("/tmp/debug.log") == 0);
    return 0;
}
