// BRICKDISK_EXPORT marks the classes and functions that programs linking the
// brickdisk library may use. The library is built with hidden visibility:
// whatever lacks the mark (the helpers under detail/ folders and code local to
// a source file) stays inside the library and is not part of its interface.
#pragma once

#define BRICKDISK_EXPORT __attribute__((visibility("default")))
