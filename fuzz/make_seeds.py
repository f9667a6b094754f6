#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz targets (corpus/<target>/): a handful of small, real inputs
each, encoded here by hand so that nothing but Python is needed. Run it from anywhere; it rewrites
the seeds it makes and leaves every other file (the regression inputs) alone."""
import json
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))


def write(target, name, data):
    folder = os.path.join(HERE, "corpus", target)
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, name), "wb") as f:
        f.write(data if isinstance(data, bytes) else data.encode())


# --- The keyed archive: CBOR, tag 55799 around {"archiver": "NSKeyedArchiver", "root": value}.
class Url(str):
    pass


class Date(str):
    pass


def cbor_head(major, n):
    if n < 24:
        return bytes([major << 5 | n])
    for extra, fmt in ((24, ">B"), (25, ">H"), (26, ">I"), (27, ">Q")):
        if n < 1 << (8 * struct.calcsize(fmt)):
            return bytes([major << 5 | extra]) + struct.pack(fmt, n)


def cbor(v):
    if v is True:
        return b"\xf5"
    if v is False:
        return b"\xf4"
    if isinstance(v, int):
        return cbor_head(0, v) if v >= 0 else cbor_head(1, -1 - v)
    if isinstance(v, float):
        return b"\xfb" + struct.pack(">d", v)
    if isinstance(v, Url):
        return cbor_head(6, 32) + cbor(str(v))
    if isinstance(v, Date):
        return cbor_head(6, 0) + cbor(str(v))
    if isinstance(v, str):
        b = v.encode()
        return cbor_head(3, len(b)) + b
    if isinstance(v, bytes):
        return cbor_head(2, len(v)) + v
    if isinstance(v, list):
        return cbor_head(4, len(v)) + b"".join(cbor(x) for x in v)
    if isinstance(v, dict):
        return cbor_head(5, len(v)) + b"".join(cbor(k) + cbor(x) for k, x in v.items())
    raise TypeError(v)


def archive(root):
    return cbor_head(6, 55799) + cbor({"archiver": "NSKeyedArchiver", "root": root})


# A 2x1 RGB TIFF, uncompressed, one strip: the host's icon as the picker archives it.
def tiff():
    entries = [(256, 3, 1, 2), (257, 3, 1, 1), (258, 3, 3, 0), (259, 3, 1, 1), (273, 4, 1, 0),
               (277, 3, 1, 3), (278, 3, 1, 1), (279, 4, 1, 6), (284, 3, 1, 1)]
    ifd = 8
    bits_at = ifd + 2 + 12 * len(entries) + 4
    pixels_at = bits_at + 6
    out = b"II*\x00" + struct.pack("<I", ifd) + struct.pack("<H", len(entries))
    for tag, kind, count, value in entries:
        if tag == 258:
            value = bits_at
        if tag == 273:
            value = pixels_at
        packed = struct.pack("<HI", value, 0)[:4] if kind == 3 else struct.pack("<I", value)
        out += struct.pack("<HHI", tag, kind, count) + packed
    return out + b"\x00\x00\x00\x00" + struct.pack("<HHH", 8, 8, 8) + bytes([255, 0, 0, 0, 255, 0])


def item(title, value, type_identifier="public.data", user_info=None):
    out = {"attachments": [{"typeIdentifier": type_identifier, "item": value}],
           "userInfo": user_info or {}}
    if title is not None:
        out["attributedTitle"] = title
    return out


REQUEST_USER_INFO = {
    "kLMBroadcastActivityExtensionLedraKeyLocalizedNoService": "No broadcast services",
    "kLMBroadcastActivityExtensionLedraKeyLocalizedBroadcastTitle": "Broadcast %@ to",
    "kLMBroadcastActivityExtensionLedraKeyLocalizedFindBroadcastApps": "Find apps",
    "kLMBroadcastActivityExtensionLedraKeyWidth": 400.0,
    "kLMBroadcastActivityExtensionLedraKeyHeight": "300.5px",
    "kLMBroadcastActivityExtensionLedraKeySourceX": 200,
    "kLMBroadcastActivityExtensionLedraKeySourceY": "-1e3",
}
HOST_INFO = {
    "LMBroadcastExtensionKeyExtensionHostInfoAppName": "Notes",
    "LMBroadcastExtensionKeyExtensionHostInfoBundleID": "com.example.notes",
    "LMBroadcastExtensionKeyExtensionHostInfoAppIcon": tiff(),
    "LMBroadcastExtensionKeyExtensionHostInfoPreferredExtension": "com.example.tidecast.setupui",
}
INPUT_ITEMS = [{"attachments": [], "userInfo": REQUEST_USER_INFO},
               item("LMBroadcastExtensionKeyExtensionHostInfo", HOST_INFO)]
SETUP_ITEMS = [
    item("LMBroadcastExtensionKeyExtensionBundleIdentifier", "com.example.tidecast.setupui"),
    item("LMBroadcastExtensionKeyBroadcastConfiguration", b"\x01\x02config"),
    item("LMBroadcastExtensionKeyExtensionUserInfo", {"quality": 3, "private": True,
                                                      "nested": [1.5, "a", {"k": b"v"}]}),
    item("kLMBroadcastExtensionKeyExtensionServiceURL", Url("https://example.com/live?id=7")),
]

write("keyed_archive", "host-info", archive(HOST_INFO))
write("keyed_archive", "items", archive(SETUP_ITEMS))
write("keyed_archive", "scalars", archive([0, -1, 2**63 - 1, -2**63, 1.25, True, False, "",
                                           b"", Url("file:///tmp/x"),
                                           Date("2026-01-02T03:04:05Z")]))
write("keyed_archive", "nested", archive({"a": [[[{"b": [{}]}]]]}))
write("keyed_archive", "truncated", archive(HOST_INFO)[:40])

write("request_items", "input-items", archive(INPUT_ITEMS))
write("request_items", "setup-items", archive(SETUP_ITEMS))
write("request_items", "setup-text-url", archive(SETUP_ITEMS[:3] + [
    item("kLMBroadcastExtensionKeyExtensionServiceURL", "rtmp://example.com/app/key")]))
write("request_items", "loose-types", archive([
    {"attachments": [], "userInfo": {"kLMBroadcastActivityExtensionLedraKeyWidth": True}},
    item("LMBroadcastExtensionKeyExtensionHostInfo", {
        "LMBroadcastExtensionKeyExtensionHostInfoAppName": 12,
        "LMBroadcastExtensionKeyExtensionHostInfoAppIcon": "not data"}),
    item("LMBroadcastExtensionKeyExtensionBundleIdentifier", 42.5),
    item("other", "x", "public.plain-text")]))


# --- D-Bus messages, little-endian, as a peer writes them.
class Msg:
    def __init__(self):
        self.b = bytearray()

    def pad(self, n):
        while len(self.b) % n:
            self.b.append(0)


def split(sig):
    """The complete types of a signature."""
    out, i = [], 0
    while i < len(sig):
        j = i
        while sig[j] == "a":
            j += 1
        if sig[j] in "({":
            depth, j = 0, j
            while True:
                depth += sig[j] in "({"
                depth -= sig[j] in ")}"
                j += 1
                if depth == 0:
                    break
        else:
            j += 1
        out.append(sig[i:j])
        i = j
    return out


ALIGN = {"y": 1, "b": 4, "n": 2, "q": 2, "i": 4, "u": 4, "x": 8, "t": 8, "d": 8, "s": 4, "o": 4,
         "g": 1, "a": 4, "(": 8, "{": 8, "v": 1}
FIXED = {"y": "<B", "b": "<I", "n": "<h", "q": "<H", "i": "<i", "u": "<I", "x": "<q", "t": "<Q",
         "d": "<d"}


def put(m, t, v):
    m.pad(ALIGN[t[0]])
    if t in FIXED:
        m.b += struct.pack(FIXED[t], v)
    elif t in "so":
        e = v.encode()
        m.b += struct.pack("<I", len(e)) + e + b"\0"
    elif t == "g":
        m.b += bytes([len(v)]) + v.encode() + b"\0"
    elif t == "v":
        sig, value = v
        put(m, "g", sig)
        put(m, sig, value)
    elif t[0] == "(":
        for sub, x in zip(split(t[1:-1]), v):
            put(m, sub, x)
    elif t[0] == "a":
        at = len(m.b)
        m.b += b"\0\0\0\0"
        m.pad(ALIGN[t[1]])
        start = len(m.b)
        if t[1] == "{":
            key, val = split(t[2:-1])
            for k, x in v.items():
                m.pad(8)
                put(m, key, k)
                put(m, val, x)
        else:
            for x in v:
                put(m, t[1:], x)
        m.b[at:at + 4] = struct.pack("<I", len(m.b) - start)
    else:
        raise TypeError(t)


def message(member, signature, args, serial=1):
    body = Msg()
    for t, v in zip(split(signature), args):
        put(body, t, v)
    fields = [(1, ("o", "/com/vantor/lumaro/Fuzz")), (2, ("s", "com.vantor.lumaro.Fuzz")),
              (3, ("s", member))]
    if signature:
        fields.append((8, ("g", signature)))
    head = Msg()
    head.b += b"l\x01\x01\x01" + struct.pack("<II", len(body.b), serial)
    put(head, "a(yv)", fields)
    head.pad(8)
    return bytes(head.b + body.b)


def member(selector):
    return selector.replace("_", "_0").replace(":", "_")


def obj(sig, value):
    return [(sig, value)]


ERROR = {"domain": ("s", "NSExtensionRequestErrorDomain"), "code": ("x", 3),
         "userInfo": ("a{sv}", {"NSLocalizedDescription": ("s", "the child exited")})}
write("xpc_value", "setup-broadcast", message(
    member("setupBroadcastWithHostBundleID:broadcastExtensionBundleID:"
           "broadcastConfigurationData:userInfo:handler:"), "avavavav",
    [obj("s", "com.example.notes"), obj("s", "com.example.tidecast.setupui"),
     obj("ay", b"\x01\x02"), obj("a{sv}", {"quality": ("i", 3), "tags": ("as", ["a", "b"])})]))
write("xpc_value", "cancel-with-error", message(
    member("_cancelRequestWithError:reply:"), "av", [obj("a{sv}", ERROR)]))
write("xpc_value", "did-finish", message(
    member("extensionDidFinishWithLaunchURL:broadcastURL:extensionBundleID:cancelled:"),
    "avavavy", [[], obj("s", "https://example.com/live"), obj("s", "com.example.x"), 1]))
write("xpc_value", "remote-view-reply", message(
    member("_remoteViewWithClassName:clientParameters:reply:"), "avx(dd)av",
    [obj("s", "unix:path=/tmp/x"), 42, (400.0, 300.0), []]))
write("xpc_value", "odd-values", message("anything", "avva{iv}(sav)aavgo", [
    obj("v", ("v", ("t", 2**64 - 1))), ("av", [("d", float("nan"))]), {7: ("b", 1)},
    ("x", [("n", -2)]), [[("q", 9)], []], "a{sv}", "/a/b"]))
write("xpc_value", "endpoint", message(
    member("startInAppBroadcastWithContextID:windowSize:microphoneEnabled:cameraEnabled:"
           "listenerEndpoint:withHandler:"), "av(dd)yyav",
    [obj("x", 7), (1.0, 2.0), 0, 255, obj("s", "unix:abstract=/tmp/l")]))

write("xpc_value", "nested-values", message(member("_completeRequestReturningItems:reply:"),
                                          "avav", [
    obj("a{sv}", {"a": ("a{sv}", {"b": ("av", [("aay", [b"x", b""]), ("(ids)", (1, 2.5, "s"))])}),
                  "c": ("aa{sv}", [{"d": ("b", 0)}, {}])}),
    obj("v", ("v", ("v", ("s", "deep"))))]))
write("xpc_value", "error-odd-fields", message(member("_cancelRequestWithError:reply:"), "av", [
    obj("a{sv}", {"domain": ("o", "/not/a/string"), "code": ("d", 1e300),
                  "userInfo": ("s", "not a dictionary")})]))
write("xpc_value", "size-as-integers", message(
    member("_remoteViewWithClassName:clientParameters:reply:"), "av(ii)xav",
    [[], (400, 300), -1, obj("a{sv}", {"NSLocalizedDescription": ("s", "x")})]))

# --- Manifests: the example services' own, and a few that break the schema in different ways.
SHARE = os.path.join(HERE, "..", "share", "lumaro", "extensions")
for name in sorted(os.listdir(SHARE)):
    if name.endswith(".json"):
        with open(os.path.join(SHARE, name), "rb") as f:
            write("manifest", name, f.read())
VALID = {"identifier": "com.example.fuzz.setupui",
         "NSExtension": {"NSExtensionPointIdentifier": "com.vantor.broadcast-services-setupui",
                         "NSExtensionActivationRule": {"NSExtensionActivationSupportsReplayKitStreaming": True},
                         "NSExtensionPrincipalClass": "FuzzSetupViewController"},
         "infoDictionary": {"CFBundleDisplayName": "Fuzz Live", "NSExtension": "replaced"},
         "platform": 1, "containingApplication": "../apps/fuzz", "executable": "/usr/bin/true"}
write("manifest", "valid.json", json.dumps(VALID))
write("manifest", "wrong-types.json", json.dumps(dict(VALID, platform=1.5, identifier="",
                                                      NSExtension=[], executable=None)))
write("manifest", "missing-fields.json", json.dumps({"identifier": "x" * 300}))
write("manifest", "schema-keywords.json", json.dumps({
    "type": ["object", "string"], "required": ["a"], "properties": {"a": {"enum": [1, "x"]}},
    "additionalProperties": {"items": {"minimum": 2, "maxLength": 1}}, "pattern": "^x"}))
write("manifest", "not-json.json", '{"identifier": "x", ')
