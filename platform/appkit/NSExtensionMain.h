// The process entry of an extension: run by the extension runtime with a request described by
// the environment (see platform/extension/NSExtensionRequest.h), never by hand.
//
// Makes the application, connects to the host, creates the request's context through the
// context class that the manifest names (initWithInputItems:listenerEndpoint:contextUUID:),
// sets up the auxiliary connection with the class hooks' interfaces, instantiates the principal
// view controller that the manifest names (a class registered with
// NSStoryboard::registerViewControllerClass), binds it to the context and loads its view on the
// main queue. Serves remote views of the extension's controllers to the host. Runs until the
// request has ended and the host has its answer, or the host is gone.
//
// Returns 0 after a request that ended, 1 when the request could not run, 64 when the process
// was not started by the runtime.
#pragma once

int NSExtensionMain(int argc, char** argv);

// The usage text of a program whose entry is NSExtensionMain: `name` and what it is.
const char* NSExtensionMainUsage();
