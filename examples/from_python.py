"""Find a message, decode a payload, craft an override request, convert to protobuf."""
import datetime

import vorlink

status = vorlink.message("AlarmStatusData")            # or 0x0100, "MSG_ID_ALARM_STATUS_DATA"
print(status, [f.name for f in status.fields])

record = vorlink.decode(status.id, bytes.fromhex("02000000010000003c0000000500"))
print(record.alarmState, record["alarmsFlags"], record.dump())

request = vorlink.encode("TdBubbleOverrideRequest", reset=0, state=1, index=2)
print(request.hex())
try:
    vorlink.encode("TdBubbleOverrideRequest", reset=0, state=-1, index=2)
except ValueError as refused:
    print(refused)

now = datetime.datetime(2023, 11, 14, 22, 13, 20, 123000, tzinfo=datetime.timezone.utc)
proto = vorlink.to_protobuf("TdBubbleOverrideRequest", request, time=now, sequence=7)
print(proto.hex(), vorlink.read_header(proto).msg_id == 0x0380)
print(vorlink.from_protobuf("TdBubbleOverrideRequest", proto))
