#include "InformFinder/name_conversion.h"

#include "kelvane_vfs/checked_text.h"

#import <Foundation/Foundation.h>

const char* convertName(const char* text, char (&result)[nameFormSize], NameForm form) {
    // In the order of NameForm.
    const SEL conversions[] = {
        @selector(precomposedStringWithCanonicalMapping),
        @selector(decomposedStringWithCanonicalMapping),
        @selector(precomposedStringWithCompatibilityMapping),
        @selector(decomposedStringWithCompatibilityMapping)
    };
    NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
    NSString* string = [NSString stringWithUTF8String:text];
    NSString* converted = [string performSelector:conversions[static_cast<std::size_t>(form)]];
    const char* bytes = [converted UTF8String];
    if (bytes != nullptr) {
        checkedCopy(result, sizeof result, bytes);
    }
    [pool release];
    return bytes != nullptr ? result : nullptr;
}
