#pragma once

/// Lock rules that clang checks (-Wthread-safety, preset "clang"); other compilers see nothing.
#if defined(__clang__)
#define KAV_ANNOTATION(x) __attribute__((x))
#else
#define KAV_ANNOTATION(x)
#endif

#define KAV_CAPABILITY(name) KAV_ANNOTATION(capability(name))
#define KAV_SCOPED_CAPABILITY KAV_ANNOTATION(scoped_lockable)
#define KAV_GUARDED_BY(lock) KAV_ANNOTATION(guarded_by(lock))
#define KAV_ACQUIRE(...) KAV_ANNOTATION(acquire_capability(__VA_ARGS__))
#define KAV_RELEASE(...) KAV_ANNOTATION(release_capability(__VA_ARGS__))
