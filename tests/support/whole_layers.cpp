// A program that contains all layers and does nothing, see whole_layers.cmake.
void* Plt_Log_TcpPrint = nullptr;

int main() {}
