#!/usr/bin/python3
"""Builds SMS-DELIVER and status-report PDUs, decodes each with gammu (an
independent SMS codec; needs the Debian package python3-gammu, hence the
system interpreter) and prints them as the table of pdu_vectors.inc.

Run by hand after changing a case:
    /usr/bin/python3 scripts/make_pdu_vectors.py > tests/sms/pdu_vectors.inc
The build and CI use only the committed table.

Every expected value comes from gammu's decoding. Where our codec differs by
design (no user-data header, no alphanumeric address, no alphabet table) the
field is either not compared (None) or derived from gammu's own fields, and
the row's description says so.
"""
import gammu

SMSC = "0891683108200505F0"  # +8613800250500


def semi(digits):
    if len(digits) % 2:
        digits += "F"
    return "".join(digits[i + 1] + digits[i] for i in range(0, len(digits), 2))


def address(number, toa):
    digits = number.lstrip("+")
    return "%02X%02X%s" % (len(digits), toa, semi(digits))


def pack7(septets, fill=0):
    bits = 0
    out = bytearray()
    acc = 0
    for s in septets:
        acc |= s << (bits + fill)
        bits += 7
    total = bits + fill
    for i in range((total + 7) // 8):
        out.append((acc >> (8 * i)) & 0xFF)
    return bytes(out)


def alnum_address(text):
    packed = pack7(text.encode())
    return "%02X%02X%s" % ((len(text) * 7 + 3) // 4, 0xD0, packed.hex().upper())


def scts(stamp, tz_quarters):
    fields = [stamp[i:i + 2] for i in range(2, 14, 2)]  # YY MM DD hh mm ss
    tz = "%02d" % abs(tz_quarters)
    octet = int(tz[1] + tz[0], 16) | (0x08 if tz_quarters < 0 else 0)
    return "".join(semi(f) for f in fields) + "%02X" % octet


def deliver(sender, dcs, stamp, tz, ud, udl, udh=False, smsc=SMSC):
    first = 0x44 if udh else 0x04
    return "%s%02X%s00%02X%s%02X%s" % (smsc, first, sender, dcs, scts(stamp, tz), udl,
                                       ud.hex().upper())


def status_report(ref, recipient, stamp, status, smsc=SMSC, tail=""):
    return "%s06%02X%s%s%s%02X%s" % (smsc, ref, recipient, scts(stamp, 32),
                                     scts(stamp[:12] + "59", 32), status, tail)


UDH = bytes.fromhex("050003A70201")  # concatenated message, reference A7, part 1 of 2
INTL = address("+8613715338310", 0x91)
NATL = address("01055512345", 0x81)
GSM_DIFFERENT = {"@": 0x00, "£": 0x01, "$": 0x02, "_": 0x11}


def t7(text):
    return text.encode()


DELIVER = [
    # (description, pdu, compare: set of "number", "text")
    ("7-bit, international odd count, east zone",
     deliver(INTL, 0, "20250507164351", 32, pack7(t7("hello")), 5), "number text"),
    ("7-bit, national even count, west zone",
     deliver(NATL, 0, "20231231235959", -20, pack7(t7("Hello World")), 11), "number text"),
    ("7-bit, national odd count (type 81, no '+')",
     deliver(address("10086", 0x81), 0, "20240229120000", 0, pack7(t7("Balance: 12.50")), 14),
     "number text"),
    ("7-bit, 7 characters: a trailing character 0 is counted",
     deliver(INTL, 0, "20250101000000", 4, pack7(t7("abcdefg")), 7), "number text"),
    ("7-bit, 8 characters fill 7 octets exactly",
     deliver(INTL, 0, "20250101000001", 4, pack7(t7("12345678")), 8), "number text"),
    ("7-bit, 15 characters: again one trailing 0",
     deliver(INTL, 0, "20250615081530", -47, pack7(t7("Meeting at 10am")), 15), "number text"),
    ("7-bit, 160 characters",
     deliver(INTL, 0, "20251130225800", 36, pack7(t7(("Lorem ipsum dolor sit amet " * 6)[:160])),
             160), "number text"),
    ("7-bit, empty text",
     deliver(INTL, 0, "20250507164351", 32, b"", 0), "number text"),
    ("7-bit, GSM characters whose values differ from ASCII: kept untranslated",
     deliver(INTL, 0, "20250507164351", 32, pack7(bytes([0x00, 0x01, 0x02, 0x11, 0x41])), 5),
     "number raw7"),
    ("7-bit, no service-centre address",
     deliver(INTL, 0, "20250507164351", 32, pack7(t7("no smsc")), 7, smsc="00"), "number text"),
    ("7-bit, 20-digit number",
     deliver(address("+12345678901234567890", 0x91), 0, "20300101010101", 0, pack7(t7("long")), 4),
     "number text"),
    # gammu reads the years 90 to 99 its own way, so the late year stays below them.
    ("7-bit, year 2089 in a west zone",
     deliver(NATL, 0, "20891231235959", -48, pack7(t7("end")), 3), "number text"),
    ("7-bit, alphanumeric sender: its digits are not comparable",
     deliver(alnum_address("InfoSMS"), 0, "20250507164351", 32, pack7(t7("Your code is 4711")), 17),
     "text"),
    ("7-bit, user-data header: header septets are text here, only the time compared",
     deliver(INTL, 0, "20250507164351", 32, UDH + pack7(t7("part one"), fill=1), 7 + 8, udh=True),
     "number"),
    ("UCS-2, Chinese, international",
     deliver(INTL, 8, "20250507164351", 32, "你好，世界".encode("utf-16-be"), 10), "number text"),
    ("UCS-2, Latin with accents, national odd count",
     deliver(address("0612345", 0x81), 8, "20240301093000", 4, "Grüße, café".encode("utf-16-be"),
             22), "number text"),
    ("UCS-2, 70 characters of three UTF-8 bytes",
     deliver(INTL, 8, "20250507164351", -12, ("短信" * 35).encode("utf-16-be"), 140), "number text"),
    ("UCS-2, Cyrillic and Greek (two UTF-8 bytes each)",
     deliver(NATL, 8, "20250808080808", 12, "Привет Γειά".encode("utf-16-be"), 22), "number text"),
    ("UCS-2, alphanumeric sender",
     deliver(alnum_address("Bank"), 8, "20250507164351", 32, "余额".encode("utf-16-be"), 4),
     "text"),
    ("UCS-2, user-data header: header octets decoded as UCS-2 units",
     deliver(INTL, 8, "20250507164351", 32, UDH + "第一部分".encode("utf-16-be"), 14, udh=True),
     "number udh_ucs2"),
    ("8-bit data, national",
     deliver(NATL, 4, "20250507164351", 32, bytes([0x01, 0x7F, 0x80, 0xFF, 0x30]), 5),
     "number raw8"),
    ("8-bit data, empty",
     deliver(INTL, 4, "20250507164351", 32, b"", 0), "number raw8"),
    ("8-bit data, 140 octets",
     deliver(INTL, 4, "20250507164351", 0, bytes(range(1, 141)), 140), "number raw8"),
    ("8-bit data, user-data header: header octets lead the text",
     deliver(INTL, 4, "20250507164351", 32, UDH + b"\x10\x20\x30", 9, udh=True), "number udh8"),
    ("8-bit data, alphanumeric sender",
     deliver(alnum_address("Operator"), 4, "20250507164351", 32, b"\xC0\xFF\xEE", 3), "raw8"),
]

STATUS = [
    ("delivered, international, reference 71", status_report(71, INTL, "20250507164351", 0x00)),
    ("forwarded, unconfirmed, reference 0", status_report(0, INTL, "20250101000000", 0x01)),
    ("replaced by the centre, reference 255", status_report(255, NATL, "20250101000000", 0x02)),
    ("congestion, still trying, national odd", status_report(1, address("10086", 0x81),
                                                            "20240229120000", 0x20)),
    ("recipient busy, still trying", status_report(128, INTL, "20250507164351", 0x21)),
    ("permanent error: incompatible destination", status_report(17, INTL, "20250507164351", 0x41)),
    ("permanent error: validity expired", status_report(200, NATL, "20231231235959", 0x46)),
    ("temporary error, gave up: congestion", status_report(99, INTL, "20250507164351", 0x60)),
    ("no service-centre address", status_report(5, INTL, "20250507164351", 0x00, smsc="00")),
]


def c_string(data):
    out = []
    for b in data:
        c = chr(b)
        if c in '"\\':
            out.append("\\" + c)
        elif 32 <= b < 127:
            out.append(c)
        else:
            out.append("\\%03o" % b)
    return '"' + "".join(out) + '"'


def expected_text(msg, compare):
    if "text" in compare:
        if msg["Coding"] == "Unicode_No_Compression":
            return msg["Text"].encode("utf-8")
        # The user data runs to the line's end: 7k octets unpack to one more character, 0.
        septets = msg["Text"].encode("ascii")
        octets = (len(septets) * 7 + 7) // 8
        return septets + bytes(octets + octets // 7 - len(septets))
    if "raw7" in compare:  # gammu's characters back to the septets we keep as they are
        septets = bytes(GSM_DIFFERENT.get(c, ord(c)) for c in msg["Text"])
        return septets
    if "raw8" in compare:
        return bytes(msg["Text"])
    if "udh8" in compare:
        return bytes(msg["UDH"]["Text"]) + bytes(msg["Text"])
    if "udh_ucs2" in compare:
        units = bytes(msg["UDH"]["Text"]) + msg["Text"].encode("utf-16-be")
        return units.decode("utf-16-be").encode("utf-8")
    return None


def main():
    print("// Generated by scripts/make_pdu_vectors.py from gammu's decoding; do not edit.")
    print("// {what, pdu, number (nullptr: not compared), time, text (nullptr: not compared)}")
    print("const deliver_vector DELIVER_VECTORS[] = {")
    for what, pdu, compare in DELIVER:
        msg = gammu.DecodePDU(bytes.fromhex(pdu), SMSC=True)
        assert msg["Type"] == "Deliver", what
        number = '"%s"' % msg["Number"] if "number" in compare else "nullptr"
        time = msg["DateTime"].strftime("%Y%m%d%H%M%S")
        text = expected_text(msg, compare)
        text_c = "nullptr, 0" if text is None else "%s, %d" % (c_string(text), len(text))
        print('    {"%s", "%s", %s, "%s", %s},' % (what, pdu, number, time, text_c))
    print("};\n")
    print("// {what, pdu, status, reference}")
    print("const status_vector STATUS_VECTORS[] = {")
    for what, pdu in STATUS:
        msg = gammu.DecodePDU(bytes.fromhex(pdu), SMSC=True)
        assert msg["Type"] == "Status_Report", what
        print('    {"%s", "%s", %d, %d},' % (what, pdu, msg["DeliveryStatus"],
                                             msg["MessageReference"]))
    print("};")


main()
