// Owners of what GLib, GIO and libcurl hand the host platform, so that each
// is released on every path. The host platform sits below the daemon and
// keeps its own small set.
#ifndef NYX_PLATFORM_HOST_HOST_OWNERS_H
#define NYX_PLATFORM_HOST_HOST_OWNERS_H

#include <curl/curl.h>
#include <glib.h>

#include <memory>
#include <type_traits>

namespace nyxhost {

// A unique_ptr whose deleter calls Release: the constant converts to the
// function pointer, which is then called. It stores nothing.
template <typename T, auto Release>
using Owner = std::unique_ptr<T, std::integral_constant<decltype(Release), Release>>;

// A string from g_malloc (g_strdup, g_file_get_contents, ...).
using GFreeString = Owner<gchar, g_free>;
// A NULL-terminated array of strings from g_strsplit.
using StrvOwner = Owner<gchar*, g_strfreev>;
using GErrorOwner = Owner<GError, g_error_free>;
using GVariantOwner = Owner<GVariant, g_variant_unref>;
using GHashTableOwner = Owner<GHashTable, g_hash_table_destroy>;
using GDateTimeOwner = Owner<GDateTime, g_date_time_unref>;
using CurlUrlOwner = Owner<CURLU, curl_url_cleanup>;
// A string from libcurl (curl_url_get, curl_easy_escape, ...).
using CurlString = Owner<char, curl_free>;

}  // namespace nyxhost

#endif  // NYX_PLATFORM_HOST_HOST_OWNERS_H
