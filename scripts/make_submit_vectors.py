#!/usr/bin/python3
"""Builds the SMS-SUBMIT PDUs of sent texts with gammu (an independent SMS
codec; needs the Debian package python3-gammu, hence the system interpreter)
and prints them as the table of submit_vectors.inc.

Run by hand after changing a case:
    /usr/bin/python3 scripts/make_submit_vectors.py > tests/sms/submit_vectors.inc
The build and CI use only the committed table.

gammu splits each text into parts (gammu.EncodeSMS) and encodes each part
(gammu.EncodePDU); the script only fills in the send's own settings: centre,
destination, validity, status-report request, and the concatenation
reference, which gammu draws at random. Every part is then decoded again by
gammu and must give back its share of the text.

Where gammu departs from TS 23.038/23.040 the standard holds:
 - gammu's decoder counts a 7-bit user-data length in characters, not septets
   (TS 23.040 9.2.3.16), so with extension characters it reads past the end
   of the text: only the decoded text's beginning is compared.
 - Text outside the GSM 7-bit alphabet and its extension table is
   transliterated by gammu ('?', or a letter without its accent); such a text
   must be refused, which the row derives from gammu's lossy round trip.
"""
import gammu

from sms_vectors import c_string

VALIDITY = {255: "Max", 167: "1D", 143: "12H", 11: "1H", 173: "1W"}
# The emulated module's own centre, which "DEFAULT" gives.
EMU_SMSC = "+12345678901"
SMSC = "+8613800100500"

DEFAULT_ALPHABET = (
    "@£$¥èéùìòÇ\nØø\rÅåΔ_ΦΓΛΩΠΨΣΘΞ\x1bÆæßÉ !\"#¤%&'()*+,-./0123456789:;<=>?"
    "¡ABCDEFGHIJKLMNOPQRSTUVWXYZÄÖÑÜ§¿abcdefghijklmnopqrstuvwxyzäöñüà")
EXTENSION = "\x0c^{}\\[~]|€"
ALL_DEFAULT = DEFAULT_ALPHABET.replace("\x1b", "")
assert len(ALL_DEFAULT) == 127

LONG_400 = ("Board 7 reports: link up since 06:00, signal 20, two dials, no faults. " * 6)[:400]


def septets(text):
    return sum(2 if c in EXTENSION else 1 for c in text)


def units(text):
    return len(text.encode("utf-16-be")) // 2


def gammu_number(destination):
    # A number beginning with 86 is taken as international here (a choice of
    # this system, not of the standard): gammu is given it with its '+'.
    if destination.startswith("86"):
        return "+" + destination
    return destination


def gammu_parts(text, ucs2):
    return gammu.EncodeSMS({"Class": -1, "Unicode": bool(ucs2),
                            "Entries": [{"ID": "ConcatenatedTextLong", "Buffer": text}]})


def encode(part, smsc, destination, validity, srr, reference):
    m = dict(part)
    m["SMSC"] = {"Number": smsc, "Location": 0, "Validity": VALIDITY[validity]}
    m["Number"] = gammu_number(destination)
    m["Type"] = "Status_Report" if srr else "Submit"
    udh = m["UDH"]
    if udh["Type"] == "ConcatenatedMessages":
        text = bytearray(udh["Text"])
        assert text[:3] == b"\x05\x00\x03"
        text[3] = reference
        m["UDH"] = dict(udh, Text=bytes(text), ID8bit=reference)
    else:
        assert udh["Type"] == "NoUDH", udh
    pdu = gammu.EncodePDU(m, Layout="Submit")
    smsc_octets = pdu[0]
    tpdu = pdu[1 + smsc_octets:]
    # TP-VP sits after the first octet, reference, address, PID and DCS.
    digits = tpdu[2]
    vp = tpdu[2 + 2 + (digits + 1) // 2 + 2]
    assert vp == validity, (vp, validity)
    return pdu.hex().upper(), len(tpdu)


def decoded_back(pdu, want):
    msg = gammu.DecodePDU(bytes.fromhex(pdu), SMSC=True)
    got = msg["Text"]
    if msg["Coding"] == "Default_No_Compression" and any(c in EXTENSION for c in want):
        return got[:len(want)] == want  # gammu reads past the septets; see above
    return got == want


CASES = [
    # (what, ucs2, smsc, destination, text, validity, status report, reference)
    ("7-bit, every default-alphabet character", 0, SMSC, "+4915112345678", ALL_DEFAULT, 167, 0, 0),
    ("7-bit, every extension character, two septets each", 0, SMSC, "+4915112345678",
     EXTENSION.replace("\x1b", ""), 255, 0, 0),
    ("7-bit, 7 septets", 0, SMSC, "10086", "abcdefg", 143, 0, 0),
    ("7-bit, 8 septets with a status report", 0, SMSC, "10086", "12345678", 11, 1, 0),
    ("7-bit, 160 septets: one message", 0, SMSC, "+8613912345678", ("Lorem ipsum dolor sit amet " * 6)[:160],
     255, 0, 0),
    ("7-bit, 80 euro signs are 160 septets: one message", 0, SMSC, "+8613912345678", "€" * 80, 167, 0, 0),
    ("7-bit, 161 septets: two parts", 0, SMSC, "+8613912345678", ("Lorem ipsum dolor sit amet " * 6)[:161],
     167, 0, 7),
    ("7-bit, an escape pair at the cut moves whole to the next part", 0, SMSC, "+4915112345678",
     "a" * 152 + "€ and [more] after the cut", 167, 1, 200),
    ("7-bit, the 400 characters of the end-to-end test", 0, EMU_SMSC, "+4915112345678", LONG_400, 167, 0, 1),
    ("7-bit, ten full parts", 0, SMSC, "10086", ("0123456789" * 153), 173, 0, 255),
    ("7-bit, national 86 without '+' is international", 0, SMSC, "8613912345678", "hello", 167, 0, 0),
    ("UCS-2, Chinese", 1, SMSC, "+8613912345678", "你好，世界", 167, 0, 0),
    ("UCS-2, emoji as surrogate pairs", 1, SMSC, "+4915112345678", "ok 😀 👍🏽 𝄞", 255, 0, 0),
    ("UCS-2, 70 units: one message", 1, SMSC, "+4915112345678", "短信" * 35, 167, 0, 0),
    ("UCS-2, 71 units: two parts", 1, SMSC, "+4915112345678", "短信" * 35 + "!", 167, 0, 3),
    ("UCS-2, a surrogate pair at the cut moves whole to the next part", 1, SMSC, "+4915112345678",
     "中" * 66 + "😀" + "文字" * 10, 167, 1, 42),
    ("UCS-2, Latin and Cyrillic after a national number", 1, SMSC, "10086", "Grüße, Привет", 255, 0, 0),
    # Refused: gammu cannot carry the text in 7 bits, or needs more than ten parts.
    ("refused: a character in neither 7-bit table", 0, SMSC, "10086", "price: 5 中", 167, 0, 0),
    ("refused: the grave accent is ASCII but no GSM character", 0, SMSC, "10086", "`quoted`", 167, 0, 0),
    ("refused: 1531 septets need eleven parts", 0, SMSC, "10086", "x" * 1531, 167, 0, 0),
    ("refused: 1528 septets, but escape pairs kept whole need eleven parts", 0, SMSC, "10086",
     "x" * 152 + "€" * 688, 167, 0, 0),
    ("refused: 671 UCS-2 units need eleven parts", 1, SMSC, "10086", "x" * 671, 167, 0, 0),
]


def row(what, ucs2, smsc, destination, text, validity, srr, reference):
    parts = gammu_parts(text, ucs2)
    assert "".join(p["Text"] for p in parts) == text, what
    pdus, sizes, octets = [], [], []
    transliterated = False
    for p in parts:
        assert p["Coding"] == ("Unicode_No_Compression" if ucs2 else "Default_No_Compression"), what
        pdu, tpdu = encode(p, smsc, destination, validity, srr, reference)
        transliterated = transliterated or not decoded_back(pdu, p["Text"])
        pdus.append(pdu)
        octets.append(tpdu)
        sizes.append(units(p["Text"]) if ucs2 else septets(p["Text"]))
    refused = transliterated or len(parts) > 10
    assert refused == what.startswith("refused"), what
    if refused:
        pdus, sizes, octets = [], [], []
    lines = ['    {%s, %d, "%s", "%s",' % (c_string(what.encode()), ucs2, smsc, destination),
             "     %s," % c_string(text.encode()),
             "     %d, %d, %d, %d, {%s}, {%s}," % (validity, srr, reference, len(pdus),
                                                 ", ".join(map(str, sizes)),
                                                 ", ".join(map(str, octets)))]
    lines.append("     {%s}}," % ",\n      ".join('"%s"' % p for p in pdus))
    return "\n".join(lines)


def main():
    print("// Generated by scripts/make_submit_vectors.py from gammu's encoding; do not edit.")
    print("// {what, ucs2, smsc, destination, text, validity, status report, reference,")
    print("//  parts (0: refused), septets or UTF-16 units of each, TPDU octets of each, PDUs}")
    print("const submit_vector SUBMIT_VECTORS[] = {")
    for case in CASES:
        print(row(*case))
    print("};")


main()
