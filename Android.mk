# zv-qel-sa in API-23 device trees, whose build cannot compile C++17: the daemon and the client tool come
# from the development-kit build or the link kit's build here (docs/platform.md) and are installed as
# prebuilts, with the daemon's init service file. Copy the two stripped programs into prebuilt/ beside this
# file before the platform build (./dev.sh handset-check leaves them in build-handset-check/build/prebuilt/).
# Programs go to /system/bin (root:shell, mode 0755 by the platform's file-system defaults), the service
# file to /system/etc/init, which the device's init.rc must import on API 23.
LOCAL_PATH := $(call my-dir)

include $(CLEAR_VARS)
LOCAL_MODULE := zv-qel-sa
LOCAL_MODULE_CLASS := EXECUTABLES
LOCAL_SRC_FILES := prebuilt/zv-qel-sa
LOCAL_MULTILIB := 64
LOCAL_REQUIRED_MODULES := zv-qel-sa.rc
include $(BUILD_PREBUILT)

include $(CLEAR_VARS)
LOCAL_MODULE := zv-sa-client
LOCAL_MODULE_CLASS := EXECUTABLES
LOCAL_SRC_FILES := prebuilt/zv-sa-client
LOCAL_MULTILIB := 64
include $(BUILD_PREBUILT)

include $(CLEAR_VARS)
LOCAL_MODULE := zv-qel-sa.rc
LOCAL_MODULE_CLASS := ETC
LOCAL_SRC_FILES := sa/zv-qel-sa.rc
LOCAL_MODULE_PATH := $(TARGET_OUT_ETC)/init
include $(BUILD_PREBUILT)
