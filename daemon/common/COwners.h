// Owners of what the C libraries hand out, so that every resource the daemon
// takes from them is released on every path, exceptions included.
//
// CRelease<f> is a deleter that calls the library's release function f (the
// constant converts to the function pointer, which is then called); it
// stores nothing, so an owner is the size of a pointer. COwner<T, f> is the
// std::unique_ptr with that deleter; a std::shared_ptr takes CRelease<f>()
// as its deleter where ownership is shared.
#ifndef NYX_DAEMON_COMMON_C_OWNERS_H
#define NYX_DAEMON_COMMON_C_OWNERS_H

#include <curl/curl.h>
#include <glib.h>
#include <openssl/bio.h>
#include <sqlite3.h>

#include <cstdlib>
#include <memory>
#include <type_traits>

template <auto Release>
using CRelease = std::integral_constant<decltype(Release), Release>;

template <typename T, auto Release>
using COwner = std::unique_ptr<T, CRelease<Release>>;

// A string from malloc, as the device libraries return them.
using MallocString = COwner<char, std::free>;
// A GLib hash table, with the keys and values it owns.
using HashTableOwner = COwner<GHashTable, g_hash_table_destroy>;
using AsyncQueueOwner = COwner<GAsyncQueue, g_async_queue_unref>;
using CurlEasyOwner = COwner<CURL, curl_easy_cleanup>;
using CurlHeaderListOwner = COwner<curl_slist, curl_slist_free_all>;
// A BIO and every BIO pushed below it.
using BioChainOwner = COwner<BIO, BIO_free_all>;

#endif  // NYX_DAEMON_COMMON_C_OWNERS_H
