// The manifest schema, compiled in so that every program checks manifests the same way without
// looking for files at run time. It is a copy of manifest.schema.json beside this file (a test
// keeps the two identical).
#include "platform/extension/NSExtensionManifest.h"

namespace platform::extension {

const char* manifestSchemaText() {
    return R"json(
{
  "$schema": "https://json-schema.org/draft/2020-12/schema",
  "$id": "https://lumaro.invalid/schemas/extension-manifest.json",
  "title": "Lumaro extension manifest",
  "description": "One installed extension: one JSON file named <anything>.json in an extensions folder of the search path. Relative paths are resolved against the folder that holds the manifest.",
  "type": "object",
  "required": ["identifier", "NSExtension", "infoDictionary", "platform", "containingApplication", "executable"],
  "properties": {
    "identifier": {
      "description": "The extension's bundle identifier; unique among installed extensions (a user's manifest overrides a system one with the same identifier).",
      "type": "string",
      "minLength": 1,
      "maxLength": 255
    },
    "NSExtension": {
      "description": "The extension's declared attributes: its extension point, activation rule and class names.",
      "type": "object",
      "required": ["NSExtensionPointIdentifier"],
      "properties": {
        "NSExtensionPointIdentifier": {
          "description": "The extension point the extension implements, e.g. com.vantor.broadcast-services-setupui.",
          "type": "string",
          "minLength": 1
        },
        "NSExtensionActivationRule": {
          "description": "A dictionary of rule names to boolean-like values, or a predicate string.",
          "type": ["object", "string"],
          "additionalProperties": {"type": ["boolean", "number", "string"]}
        },
        "NSExtensionContainingViewControllerClass": {"type": "string"},
        "NSExtensionPrincipalClass": {"type": "string"},
        "NSExtensionContextClass": {"type": "string"},
        "NSExtensionViewControllerClass": {"type": "string"},
        "LMBroadcastProcessMode": {
          "description": "LMBroadcastProcessModeSampleBuffer for extensions that process sample buffers.",
          "type": "string"
        }
      }
    },
    "infoDictionary": {
      "description": "The extension's information property list. Its NSExtension entry is always the NSExtension field above; CFBundleIdentifier defaults to the identifier.",
      "type": "object",
      "properties": {
        "CFBundleDisplayName": {"description": "The name shown in menus.", "type": "string"},
        "CFBundleName": {"type": "string"},
        "CFBundleIdentifier": {"type": "string"},
        "CFBundleVersion": {"type": "string"}
      }
    },
    "platform": {
      "description": "The platform the extension was built for: 1 native desktop, 6 built for Prism. Queries name the platforms they accept.",
      "type": "integer",
      "minimum": 1,
      "maximum": 1000
    },
    "containingApplication": {
      "description": "The folder of the application that contains the extension; its icon is that folder's icon (Info.json CFBundleIconFile, else icon.png or icon.svg).",
      "type": "string",
      "minLength": 1
    },
    "executable": {
      "description": "The program the extension runtime starts for a request.",
      "type": "string",
      "minLength": 1
    }
  }
}
)json";
}

}  // namespace platform::extension
