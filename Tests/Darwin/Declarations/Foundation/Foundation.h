#pragma once
#include <CoreFoundation/CoreFoundation.h>
#include <stdbool.h>
#include <sys/types.h>
#if !__OBJC_BOOL_IS_BOOL
#error "BOOL is bool on the machines that these declarations describe"
#endif
typedef bool BOOL;
#define YES __objc_yes
#define NO __objc_no
#define nil __null
#define NS_ASSUME_NONNULL_BEGIN _Pragma("clang assume_nonnull begin")
#define NS_ASSUME_NONNULL_END _Pragma("clang assume_nonnull end")
typedef unsigned long NSUInteger;
typedef struct _NSZone NSZone;
NS_ASSUME_NONNULL_BEGIN
@class NSString, NSURL, NSXPCConnection, NSXPCListener, Protocol;
@protocol NSObject
@end
@protocol NSCopying
- (id)copyWithZone:(nullable NSZone*)zone;
@end
__attribute__((objc_root_class))
@interface NSObject<NSObject> { Class isa; }
+ (instancetype)alloc;
- (instancetype)init;
@end
enum : NSUInteger { NSUTF8StringEncoding = 4, NSISOLatin1StringEncoding = 5 };
@interface NSString : NSObject <NSCopying>
- (nullable instancetype)initWithBytes:(const void*)bytes length:(NSUInteger)length encoding:(NSUInteger)encoding;
@end
@interface NSDictionary<__covariant K, __covariant V> : NSObject
@end
@interface NSMutableDictionary<K, V> : NSDictionary<K, V>
+ (instancetype)dictionary;
- (void)setObject:(nullable V)object forKeyedSubscript:(K<NSCopying>)key;
- (nullable V)objectForKeyedSubscript:(K)key;
@end
@interface NSURL : NSObject
@property(nullable, readonly, copy) NSString* path;
@end
@interface NSError : NSObject
@property(readonly, copy) NSString* localizedDescription;
@end
@interface NSBundle : NSObject
@property(class, readonly, strong) NSBundle* mainBundle;
@property(nullable, readonly, copy) NSString* bundleIdentifier;
@property(nullable, readonly, copy) NSDictionary<NSString*, id>* infoDictionary;
+ (nullable instancetype)bundleWithPath:(NSString*)path;
@end
typedef NSString* NSRunLoopMode;
extern "C" const NSRunLoopMode NSDefaultRunLoopMode;
@interface NSPort : NSObject
+ (NSPort*)port;
@end
@interface NSMachPort : NSPort
@end
@interface NSRunLoop : NSObject
@property(class, readonly, strong) NSRunLoop* currentRunLoop;
- (void)addPort:(NSPort*)port forMode:(NSRunLoopMode)mode;
- (void)run;
@end
@interface NSNotificationCenter : NSObject
@property(class, readonly, strong) NSNotificationCenter* defaultCenter;
- (void)postNotificationName:(NSString*)name object:(nullable id)object userInfo:(nullable NSDictionary*)userInfo;
@end
@interface NSXPCInterface : NSObject
+ (NSXPCInterface*)interfaceWithProtocol:(Protocol*)protocol;
@end
enum : NSUInteger { NSXPCConnectionPrivileged = 1 << 12 };
@interface NSXPCConnection : NSObject
@property(nullable, retain) NSXPCInterface* exportedInterface;
@property(nullable, retain) id exportedObject;
@property(nullable, retain) NSXPCInterface* remoteObjectInterface;
- (instancetype)initWithMachServiceName:(NSString*)name options:(NSUInteger)options;
- (id)remoteObjectProxyWithErrorHandler:(void (^)(NSError* error))handler;
- (void)resume;
- (void)invalidate;
@end
@protocol NSXPCListenerDelegate <NSObject>
@optional
- (BOOL)listener:(NSXPCListener*)listener shouldAcceptNewConnection:(NSXPCConnection*)newConnection;
@end
@interface NSXPCListener : NSObject
- (instancetype)initWithMachServiceName:(NSString*)name;
@property(nullable, weak) id<NSXPCListenerDelegate> delegate;
- (void)resume;
@end
NS_ASSUME_NONNULL_END
