// Everything is built with hidden visibility; what a platform library offers carries this mark.
#pragma once

#define TOLVANE_PUBLIC __attribute__((visibility("default")))
