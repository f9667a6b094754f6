// The keys of a picker request: the view-service parameters, the user-info keys of the first
// input item, the host-information item and its dictionary, and the titles of the items a
// setup UI completes with.
#pragma once

#include <QString>

// View-service parameters (hostAppClientParameters).
inline const QString kLMParameterIsPrismApp = QStringLiteral("isPrismApp");
inline const QString kLMParameterViewWidth = QStringLiteral("view-width");
inline const QString kLMParameterViewHeight = QStringLiteral("view-height");
inline const QString kLMParameterRequestIdentifier = QStringLiteral("request-identifier");

// User info of the request's first input item.
inline const QString kLMBroadcastActivityExtensionLedraKeyLocalizedNoService =
    QStringLiteral("kLMBroadcastActivityExtensionLedraKeyLocalizedNoService");
inline const QString kLMBroadcastActivityExtensionLedraKeyLocalizedBroadcastTitle =
    QStringLiteral("kLMBroadcastActivityExtensionLedraKeyLocalizedBroadcastTitle");
inline const QString kLMBroadcastActivityExtensionLedraKeyLocalizedFindBroadcastApps =
    QStringLiteral("kLMBroadcastActivityExtensionLedraKeyLocalizedFindBroadcastApps");
inline const QString kLMBroadcastActivityExtensionLedraKeyWidth =
    QStringLiteral("kLMBroadcastActivityExtensionLedraKeyWidth");
inline const QString kLMBroadcastActivityExtensionLedraKeyHeight =
    QStringLiteral("kLMBroadcastActivityExtensionLedraKeyHeight");
inline const QString kLMBroadcastActivityExtensionLedraKeySourceX =
    QStringLiteral("kLMBroadcastActivityExtensionLedraKeySourceX");
inline const QString kLMBroadcastActivityExtensionLedraKeySourceY =
    QStringLiteral("kLMBroadcastActivityExtensionLedraKeySourceY");

// The host-information item's title, and the keys of its dictionary.
inline const QString LMBroadcastExtensionKeyExtensionHostInfo =
    QStringLiteral("LMBroadcastExtensionKeyExtensionHostInfo");
inline const QString LMBroadcastExtensionKeyExtensionHostInfoAppName =
    QStringLiteral("LMBroadcastExtensionKeyExtensionHostInfoAppName");
inline const QString LMBroadcastExtensionKeyExtensionHostInfoBundleID =
    QStringLiteral("LMBroadcastExtensionKeyExtensionHostInfoBundleID");
inline const QString LMBroadcastExtensionKeyExtensionHostInfoAppIcon =
    QStringLiteral("LMBroadcastExtensionKeyExtensionHostInfoAppIcon");
inline const QString LMBroadcastExtensionKeyExtensionHostInfoPreferredExtension =
    QStringLiteral("LMBroadcastExtensionKeyExtensionHostInfoPreferredExtension");
inline const QString
    LMBroadcastExtensionKeyExtensionHostInfoBroadcastActivitiesNotInstalledAlertTitle =
        QStringLiteral(
            "LMBroadcastExtensionKeyExtensionHostInfoBroadcastActivitiesNotInstalledAlertTitle");
inline const QString
    LMBroadcastExtensionKeyExtensionHostInfoBroadcastActivitiesNotInstalledAlertMessage =
        QStringLiteral(
            "LMBroadcastExtensionKeyExtensionHostInfoBroadcastActivitiesNotInstalledAlertMessage");

// Titles of the items a setup UI completes its request with.
inline const QString LMBroadcastExtensionKeyExtensionBundleIdentifier =
    QStringLiteral("LMBroadcastExtensionKeyExtensionBundleIdentifier");
inline const QString LMBroadcastExtensionKeyBroadcastConfiguration =
    QStringLiteral("LMBroadcastExtensionKeyBroadcastConfiguration");
inline const QString LMBroadcastExtensionKeyExtensionUserInfo =
    QStringLiteral("LMBroadcastExtensionKeyExtensionUserInfo");
inline const QString kLMBroadcastExtensionKeyExtensionServiceURL =
    QStringLiteral("kLMBroadcastExtensionKeyExtensionServiceURL");

// The extension point of the broadcast setup UIs.
inline const QString kLMBroadcastSetupUIExtensionPoint =
    QStringLiteral("com.vantor.broadcast-services-setupui");

// The storyboard of the remote-parameters form, and the controller class it names.
inline const QString kLMBroadcastSetupStoryboardName = QStringLiteral("BroadcastSetup");
inline const QString kLMBroadcastActivityExtensionNSViewControllerClassName =
    QStringLiteral("LMBroadcastActivityExtensionNSViewController");
