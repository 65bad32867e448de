/* Packs an alarm status as a node would, unpacks it again, and prints the
 * wire bytes, the name the table gives its id and its payload size. */
#include "vorlink_messages.h"

#include <stdio.h>

int main(void)
{
    struct vorlink_alarm_status_data status = {2, 1, 60, 5}, back;
    uint8_t wire[VORLINK_ALARM_STATUS_DATA_SIZE];
    const struct vorlink_message_info *info = vorlink_message_by_id(VORLINK_ALARM_STATUS_DATA_ID);
    int n = vorlink_alarm_status_data_pack(wire, sizeof wire, &status), k;
    if (n != VORLINK_ALARM_STATUS_DATA_SIZE || vorlink_alarm_status_data_unpack(&back, wire, sizeof wire) != 0 ||
        back.silenceExpiresIn != 60 || info == NULL)
        return 1;
    for (k = 0; k < n; ++k)
        printf("%02x", wire[k]);
    printf(" %s %u\n", info->name, (unsigned)info->size);
    return 0;
}
