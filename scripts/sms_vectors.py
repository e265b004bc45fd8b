"""Helpers shared by the make_*_vectors.py scripts: septet packing as TS 23.038
packs them and C string literals for the generated tables."""


def pack7(septets, fill=0):
    acc = 0
    for i, s in enumerate(septets):
        acc |= s << (fill + 7 * i)
    return acc.to_bytes((fill + 7 * len(septets) + 7) // 8, "little")


def unpack7(octets, count, fill=0):
    acc = int.from_bytes(octets, "little")
    return [(acc >> (fill + 7 * i)) & 0x7F for i in range(count)]


def c_string(data):
    out = []
    for b in data:
        c = chr(b)
        if c in '"\\?':  # '?' too: no trigraphs
            out.append("\\" + c)
        elif 32 <= b < 127:
            out.append(c)
        else:
            out.append("\\%03o" % b)
    return '"' + "".join(out) + '"'
