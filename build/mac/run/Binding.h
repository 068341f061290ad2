// The classic dyld information of an image: rebasing, binding, exports.
#ifndef MAC_RUN_BINDING_H
#define MAC_RUN_BINDING_H

#include "Image.h"

namespace kelto_mac {

// Fills aImage.exports from the export trie.
void ReadExports(Image& aImage);
// Adds the slide to the pointers into the image itself.
void Rebase(const Image& aImage);
// Points what the image imports to the libraries that it names; lazily bound names as well. A name
// that an image lacks ends the process, as it does on a Mac; one that the loader lacks gets a stub.
void Bind(const Image& aImage);
// Makes the images share one definition of each weak name: the first that is not weak, or else the
// first.
void BindWeakly(const Image& aImage);

}  // namespace kelto_mac

#endif  // MAC_RUN_BINDING_H
