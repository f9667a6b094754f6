// lumaro-broadcast-picker: the broadcast picker view service. The extension runtime starts it,
// one process per host request; NSExtensionMain does the rest.
#include <cstdio>
#include <cstring>

#include "picker/LMBroadcastActivityExtensionNSViewController.h"
#include "platform/appkit/NSExtensionMain.h"

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            std::printf(
                "Usage: lumaro-broadcast-picker\n"
                "The broadcast picker view service (extension "
                "\"com.vantor.lumaro.broadcast-picker\").\n"
                "%s"
                "A host asks for it through the runtime, e.g. with `lumaro-broadcast pick`.\n",
                NSExtensionMainUsage());
            return 0;
        }
    }
    LMBroadcastPickerRegisterClasses();
    return NSExtensionMain(argc, argv);
}
