#pragma once
extern "C" {
void objc_msgSend(void);
SEL sel_registerName(const char* name);
}
