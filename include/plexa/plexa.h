#ifndef PLEXA_PLEXA_H
#define PLEXA_PLEXA_H

/// @file
/// Everything a host program needs: include this header only.

#include <plexa/znr-export.h>
#include <plexa/znr-native-handle.h>
#include <plexa/znr-error.h>
#include <plexa/znr-stl-adapter.h>
#include <plexa/znr-thread-mutex.h>
#include <plexa/znr-thread-cond.h>
#include <plexa/znr-tls.h>
#include <plexa/znr-singleton.h>
#include <plexa/znr-string.h>
#include <plexa/znr-logger.h>
#include <plexa/znr-mem-allocator.h>
#include <plexa/znr-byte-buffer.h>
#include <plexa/znr-block-memory-pool.h>
#include <plexa/znr-pool-mem-allocator.h>
#include <plexa/znr-id-allocator.h>
#include <plexa/znr-utils.h>
#include <plexa/znr-message-queue.h>
#include <plexa/znr-thread.h>
#include <plexa/znr-timer.h>
#include <plexa/znr-reactor.h>
#include <plexa/znr-device.h>
#include <plexa/znr-socket.h>
#include <plexa/znr-blocking-device.h>
#include <plexa/znr-async-io.h>
#include <plexa/znr-async-socket.h>
#include <plexa/znr-async-device.h>
#include <plexa/znr-async-pipe-device.h>
#include <plexa/znr-reactor-iocp.h>
#include <plexa/znr-reactor-mgr.h>
#include <plexa/znr-reactor-group.h>
#include <plexa/znr-tcp-acceptor.h>
#include <plexa/znr-pack.h>
#include <plexa/znr-unpack.h>
#include <plexa/znr-gzip.h>
#include <plexa/znr-trans-message.h>
#include <plexa/znr-xml-config.h>
#include <plexa/znr-data-dispatcher.h>
#include <plexa/znr-entity-map.h>
#include <plexa/znr-compat-entity-map.h>
#include <plexa/znr-data-sender.h>
#include <plexa/znr-entity-device-handler.h>
#include <plexa/znr-reply-sender.h>
#include <plexa/znr-signal.h>
#include <plexa/znr-getopt.h>
#include <plexa/znr-http-request.h>
#include <plexa/znr-digest.h>
#include <plexa/znr-dll-loader.h>
#include <plexa/znr-process.h>

#endif
