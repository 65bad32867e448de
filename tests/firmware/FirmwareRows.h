/* Every message of vorlink_messages.h behind one table of plain types, so that
 * code in another language (the C++ test against the host library) drives
 * the C functions of each row alike. Filled by the generated
 * VorlinkFirmwareRows.c, which is compiled as C99. */
#ifndef VORLINK_FIRMWARE_ROWS_H
#define VORLINK_FIRMWARE_ROWS_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* One field's value, in the member named after its wire type. */
union fw_value {
    uint8_t U08;
    uint16_t U16;
    uint32_t U32;
    int16_t S16;
    int32_t S32;
    float F32;
};

/* A member of the message's struct: its name, sizeof and offsetof. */
struct fw_field {
    const char *name;
    size_t size;
    size_t offset;
};

struct fw_row {
    unsigned long id;   /* VORLINK_X_ID */
    unsigned long size; /* VORLINK_X_SIZE */
    size_t field_count;
    const struct fw_field *fields; /* NULL for a message without fields, as are pack and unpack */
    /* vorlink_x_pack of a struct filled from v[0..field_count) */
    int (*pack)(uint8_t *dst, size_t size, const union fw_value *v);
    /* vorlink_x_unpack into a struct filled from v first, then copied back to v whatever the result */
    int (*unpack)(union fw_value *v, const uint8_t *src, size_t size);
};

extern const struct fw_row fw_rows[];
extern const size_t fw_row_count;

/* An entry of vorlink_message_table(). */
struct fw_info {
    unsigned long id, size, wire_size;
    const char *name;
};

size_t fw_message_count(void); /* VORLINK_MESSAGE_COUNT */
struct fw_info fw_table_entry(size_t k);
/* The index in the table of what vorlink_message_by_id(id) gives, or -1 for NULL. */
long fw_lookup(uint16_t id);

#ifdef __cplusplus
}
#endif

#endif
