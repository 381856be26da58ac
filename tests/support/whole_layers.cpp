// A program of all layers that does nothing: see whole_layers.cmake.
void* Plt_Log_TcpPrint = nullptr;

int main() {}
