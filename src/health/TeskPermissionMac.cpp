// The operating system's own answers to "is this door open?". Only macOS has them, so
// this is the one file that looks at the platform; elsewhere every such door reads as
// closed. None of these calls ever shows a consent sheet.
//
// EventKit and AVFoundation are Objective-C only; they are reached through the
// Objective-C runtime's C interface so this file stays plain C++. A macOS link needs
// -framework ApplicationServices -framework EventKit -framework AVFoundation -lobjc.
#include "health/TeskPermission.h"

#ifdef __APPLE__

#include <ApplicationServices/ApplicationServices.h>
#include <objc/message.h>
#include <objc/runtime.h>

#include <cstdint>
#include <cstring>

// AVFoundation's media type for audio, an NSString*; declared here because its header
// is Objective-C.
extern "C" void* const AVMediaTypeAudio;

namespace TeskPermission {
namespace {

constexpr uint32_t fourCharCode(const char (&s)[5]) {
  return (uint32_t(uint8_t(s[0])) << 24) | (uint32_t(uint8_t(s[1])) << 16) |
         (uint32_t(uint8_t(s[2])) << 8) | uint32_t(uint8_t(s[3]));
}

// May this process send `eventClass`/`eventID` to the app `bundleID`? Asked without
// prompting; a target descriptor that cannot be made means no.
bool automationGranted(const char* bundleID, uint32_t eventClass, uint32_t eventID) {
  AEAddressDesc target;
  if (AECreateDesc(typeApplicationBundleID, bundleID, static_cast<Size>(std::strlen(bundleID)),
                   &target) != noErr) {
    return false;
  }
  OSStatus status = AEDeterminePermissionToAutomateTarget(&target, eventClass, eventID, false);
  AEDisposeDesc(&target);
  return status == noErr;
}

// +[EKEventStore authorizationStatusForEntityType:EKEntityTypeEvent]; -1 without EventKit.
long eventKitStatus() {
  Class store = objc_lookUpClass("EKEventStore");
  if (store == nullptr) return -1;
  using Send = long (*)(Class, SEL, unsigned long);
  constexpr unsigned long kEntityTypeEvent = 0;
  return reinterpret_cast<Send>(objc_msgSend)(
      store, sel_registerName("authorizationStatusForEntityType:"), kEntityTypeEvent);
}

// +[AVCaptureDevice authorizationStatusForMediaType:AVMediaTypeAudio]; -1 without it.
long microphoneStatus() {
  Class device = objc_lookUpClass("AVCaptureDevice");
  if (device == nullptr) return -1;
  using Send = long (*)(Class, SEL, void*);
  return reinterpret_cast<Send>(objc_msgSend)(
      device, sel_registerName("authorizationStatusForMediaType:"), AVMediaTypeAudio);
}

}  // namespace

bool systemGrant(Door door) {
  switch (door) {
    case Door::automationMessages:
      return automationGranted("com.apple.MobileSMS", fourCharCode("icht"), fourCharCode("send"));
    case Door::automationMail:
      return automationGranted("com.apple.mail", fourCharCode("emsg"), fourCharCode("send"));
    case Door::calendarWrite: {
      long status = eventKitStatus();
      return status == 3 || status == 4;  // full access, write only
    }
    case Door::microphone:
      return microphoneStatus() == 3;  // authorized
    case Door::accessibility:
      return AXIsProcessTrusted();
    case Door::screenRecording:
      return CGPreflightScreenCaptureAccess();
    case Door::fullDisk:
    case Door::none:
      return false;  // answered by the portable code
  }
  return false;
}

}  // namespace TeskPermission

#else

namespace TeskPermission {

// No platform here keeps these grants.
bool systemGrant(Door) { return false; }

}  // namespace TeskPermission

#endif
