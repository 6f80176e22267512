include $(sort $(wildcard $(BR2_EXTERNAL_CLOUDTUNNEL_PATH)/package/*/*.mk))
