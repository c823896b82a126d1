#pragma once

// GTK comes first: some of Thunar's headers do not say that what they declare is C.
#include <gtk/gtk.h>

extern "C" {
#include <thunarx/thunarx.h>
}
