// A setup-UI service installed for in-process hand-off tests: a manifest in a temporary
// extension folder that runs the built example-setup-ui, found through the registry.
#pragma once

#include <QString>

#include "platform/extension/NSExtension.h"
#include "tests/support/Manifests.h"

namespace lumaro::test {

class InstalledService {
public:
    // `platform` 1 is native, 6 built for Prism; `executable` empty means example-setup-ui.
    explicit InstalledService(const QString& identifier, int platform = 1,
                              const QString& containingClass = "ExampleSetupViewController",
                              const QString& executable = {});

    const NSExtensionPtr& extension() const { return extension_; }

private:
    TempDir dir_;
    ScopedSearchPath path_{{dir_.path()}};
    NSExtensionPtr extension_;
};

}  // namespace lumaro::test
