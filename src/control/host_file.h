// The host-information file: every online host as a 944-byte record.
#pragma once

int writeLanHostInfo();
