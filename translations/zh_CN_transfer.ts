<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="zh_CN" sourcelanguage="en">
<context>
    <name>FileTransferBar</name>
    <message>
        <source>Cancel</source>
        <translation>取消</translation>
    </message>
    <message>
        <source>Sending %1 (%2)</source>
        <translation>正在发送 %1（%2）</translation>
    </message>
    <message>
        <source>Receiving %1 (%2)</source>
        <translation>正在接收 %1（%2）</translation>
    </message>
    <message>
        <source> -&gt; %1</source>
        <translation> -&gt; %1</translation>
    </message>
    <message>
        <source>%1 / %2 bytes</source>
        <translation>%1 / %2 字节</translation>
    </message>
    <message>
        <source>%1 bytes</source>
        <translation>%1 字节</translation>
    </message>
    <message>
        <source>  %1 KB/s</source>
        <translation>  %1 KB/s</translation>
    </message>
    <message>
        <source>  %1s left</source>
        <translation>  剩余 %1 秒</translation>
    </message>
    <message>
        <source>  %1 retries</source>
        <translation>  重试 %1 次</translation>
    </message>
</context>
<context>
    <name>FileTransferDialog</name>
    <message>
        <source>Send File</source>
        <translation>发送文件</translation>
    </message>
    <message>
        <source>Receive File</source>
        <translation>接收文件</translation>
    </message>
    <message>
        <source>TCP %1:%2</source>
        <translation>TCP %1:%2</translation>
    </message>
    <message>
        <source>TCP server, port %1</source>
        <translation>TCP 服务器，端口 %1</translation>
    </message>
    <message>
        <source>RFC 2217 %1:%2</source>
        <translation>RFC 2217 %1:%2</translation>
    </message>
    <message>
        <source>RTS/CTS</source>
        <translation>RTS/CTS</translation>
    </message>
    <message>
        <source>XON/XOFF</source>
        <translation>XON/XOFF</translation>
    </message>
    <message>
        <source>no flow control</source>
        <translation>无流控</translation>
    </message>
    <message>
        <source>%1, %2</source>
        <translation>%1，%2</translation>
    </message>
    <message>
        <source>Client:</source>
        <translation>客户端：</translation>
    </message>
    <message>
        <source>XMODEM (128 bytes, checksum)</source>
        <translation>XMODEM（128 字节，校验和）</translation>
    </message>
    <message>
        <source>XMODEM-CRC (128 bytes, CRC-16)</source>
        <translation>XMODEM-CRC（128 字节，CRC-16）</translation>
    </message>
    <message>
        <source>XMODEM-1K (1024 bytes)</source>
        <translation>XMODEM-1K（1024 字节）</translation>
    </message>
    <message>
        <source>YMODEM</source>
        <translation>YMODEM</translation>
    </message>
    <message>
        <source>YMODEM-G (streaming, no retries)</source>
        <translation>YMODEM-G（流式，不重传）</translation>
    </message>
    <message>
        <source>Protocol:</source>
        <translation>协议：</translation>
    </message>
    <message>
        <source>1024</source>
        <translation>1024</translation>
    </message>
    <message>
        <source>128</source>
        <translation>128</translation>
    </message>
    <message>
        <source>Block size:</source>
        <translation>块大小：</translation>
    </message>
    <message>
        <source>Browse...</source>
        <translation>浏览...</translation>
    </message>
    <message>
        <source>File:</source>
        <translation>文件：</translation>
    </message>
    <message>
        <source>Save into:</source>
        <translation>保存到：</translation>
    </message>
    <message>
        <source>Save as:</source>
        <translation>另存为：</translation>
    </message>
    <message>
        <source> MB</source>
        <translation> MB</translation>
    </message>
    <message>
        <source>no limit</source>
        <translation>不限制</translation>
    </message>
    <message>
        <source>Stop after (MB):</source>
        <translation>超过后停止 (MB)：</translation>
    </message>
    <message>
        <source>Keep this window open afterwards</source>
        <translation>完成后保持此窗口打开</translation>
    </message>
    <message>
        <source>Start</source>
        <translation>开始</translation>
    </message>
    <message>
        <source>YMODEM-G does not resend anything, so it needs hardware flow control (RTS/CTS). This connection has none: a single error would abandon the whole transfer.</source>
        <translation>YMODEM-G 不会重传任何数据，因此需要硬件流控（RTS/CTS）。此连接没有硬件流控：一个错误就会使整个传输中止。</translation>
    </message>
    <message>
        <source>XMODEM carries no file name or length. The device will receive the data padded up to a whole number of blocks.</source>
        <translation>XMODEM 不携带文件名和长度。设备收到的数据会被填充到整数个数据块。</translation>
    </message>
    <message>
        <source>XMODEM carries no file name or length, so you must supply the name, and the received file is always padded up to a whole number of blocks.</source>
        <translation>XMODEM 不携带文件名和长度，因此必须由您提供文件名，且接收到的文件总会被填充到整数个数据块。</translation>
    </message>
    <message>
        <source>File to send</source>
        <translation>要发送的文件</translation>
    </message>
    <message>
        <source>Save into</source>
        <translation>保存到</translation>
    </message>
    <message>
        <source>Choose a file to send.</source>
        <translation>请选择要发送的文件。</translation>
    </message>
    <message>
        <source>Choose a folder to save into.</source>
        <translation>请选择保存的文件夹。</translation>
    </message>
    <message>
        <source>The selected client is no longer connected.</source>
        <translation>所选客户端已不再连接。</translation>
    </message>
</context>
<context>
    <name>FileTransferSession</name>
    <message>
        <source>(unnamed)</source>
        <translation>（未命名）</translation>
    </message>
    <message>
        <source>XMODEM</source>
        <translation>XMODEM</translation>
    </message>
    <message>
        <source>XMODEM-CRC</source>
        <translation>XMODEM-CRC</translation>
    </message>
    <message>
        <source>XMODEM-1K</source>
        <translation>XMODEM-1K</translation>
    </message>
    <message>
        <source>YMODEM</source>
        <translation>YMODEM</translation>
    </message>
    <message>
        <source>YMODEM-G</source>
        <translation>YMODEM-G</translation>
    </message>
    <message>
        <source>Receiving with %1</source>
        <translation>正在使用 %1 接收</translation>
    </message>
    <message>
        <source>Sending %1 (%2, %3 bytes)</source>
        <translation>正在发送 %1（%2，%3 字节）</translation>
    </message>
    <message>
        <source>Cancelled. The device may still have received up to one more block of data -- if this was a firmware update, run the whole update again.</source>
        <translation>已取消。设备可能还多收到了最多一个数据块——如果这是固件升级，请重新完整地执行一次升级。</translation>
    </message>
    <message>
        <source>Cancelled.</source>
        <translation>已取消。</translation>
    </message>
    <message>
        <source>The device cancelled the transfer.</source>
        <translation>设备取消了传输。</translation>
    </message>
    <message>
        <source>The connection was closed, so the transfer stopped. If this was a firmware update the device may be left with an incomplete image -- run the update again.</source>
        <translation>连接已关闭，传输因此停止。如果这是固件升级，设备中的映像可能不完整——请重新执行升级。</translation>
    </message>
    <message>
        <source>The connection was lost, so the transfer stopped. If this was a firmware update the device may be left with an incomplete image -- run the update again.</source>
        <translation>连接已丢失，传输因此停止。如果这是固件升级，设备中的映像可能不完整——请重新执行升级。</translation>
    </message>
    <message>
        <source>Transfer failed: %1</source>
        <translation>传输失败：%1</translation>
    </message>
    <message>
        <source> (%1% transferred)</source>
        <translation>（已传输 %1%）</translation>
    </message>
    <message>
        <source>The device asked for the name &quot;%1&quot;; it was saved as &quot;%2&quot;.</source>
        <translation>设备请求的文件名为“%1”；已保存为“%2”。</translation>
    </message>
    <message>
        <source>A file of that name already existed, so this one was saved as &quot;%1&quot;.</source>
        <translation>同名文件已存在，因此此文件已保存为“%1”。</translation>
    </message>
    <message>
        <source>What arrived was kept as &quot;%1&quot;.</source>
        <translation>已收到的数据保存为“%1”。</translation>
    </message>
    <message>
        <source>Transfer complete: %1 bytes in %2 s, %3 KB/s, %4 retries</source>
        <translation>传输完成：%1 字节，用时 %2 秒，%3 KB/s，重试 %4 次</translation>
    </message>
    <message>
        <source>The connection stopped taking data for %1 s, so the transfer stopped.</source>
        <translation>连接已有 %1 秒不再接收数据，传输已停止。</translation>
    </message>
</context>
<context>
    <name>XferFileSink</name>
    <message>
        <source>Could not create %1: %2</source>
        <translation>无法创建 %1：%2</translation>
    </message>
    <message>
        <source>a file is already open</source>
        <translation>已有文件处于打开状态</translation>
    </message>
    <message>
        <source>The folder %1 does not exist.</source>
        <translation>文件夹 %1 不存在。</translation>
    </message>
    <message>
        <source>%1 has %2 MB free but the file needs %3 MB. Choose another location.</source>
        <translation>%1 只有 %2 MB 可用空间，但该文件需要 %3 MB。请选择其他位置。</translation>
    </message>
    <message>
        <source>The file was received but could not be renamed to %1.</source>
        <translation>文件已接收，但无法重命名为 %1。</translation>
    </message>
</context>
<context>
    <name>XferFileSource</name>
    <message>
        <source>Could not open %1: %2</source>
        <translation>无法打开 %1：%2</translation>
    </message>
</context>
<context>
    <name>XmodemCodec</name>
    <message>
        <source>Gave up after %1 retries.</source>
        <translation>重试 %1 次后放弃。</translation>
    </message>
    <message>
        <source>Could not create the destination file.</source>
        <translation>无法创建目标文件。</translation>
    </message>
    <message>
        <source>Cancelled.</source>
        <translation>已取消。</translation>
    </message>
    <message>
        <source>The device cancelled the transfer.</source>
        <translation>设备取消了传输。</translation>
    </message>
    <message>
        <source>The device reported an error. YMODEM-G cannot resend a block, so the transfer has been abandoned.</source>
        <translation>设备报告了错误。YMODEM-G 无法重发数据块，因此传输已中止。</translation>
    </message>
    <message>
        <source>The file changed while it was being sent.</source>
        <translation>文件在发送过程中被修改。</translation>
    </message>
    <message>
        <source>Could not read the file being sent.</source>
        <translation>无法读取正在发送的文件。</translation>
    </message>
    <message>
        <source>The device stopped responding. YMODEM-G has no retransmission, so the transfer has failed.</source>
        <translation>设备停止了响应。YMODEM-G 没有重传机制，因此传输失败。</translation>
    </message>
    <message>
        <source>The device did not request the transfer. Check that it is waiting to receive and that the baud rate matches.</source>
        <translation>设备没有请求传输。请检查设备是否在等待接收，以及波特率是否一致。</translation>
    </message>
    <message>
        <source>A block failed its checksum. YMODEM-G cannot ask for it again, so the transfer has failed.</source>
        <translation>有数据块未通过校验。YMODEM-G 无法重新请求该块，因此传输失败。</translation>
    </message>
    <message>
        <source>Data kept failing its checksum. This is usually a baud rate mismatch or line noise.</source>
        <translation>数据反复未通过校验。这通常是波特率不一致或线路噪声造成的。</translation>
    </message>
    <message>
        <source>The data was received but could not be saved.</source>
        <translation>数据已接收，但无法保存。</translation>
    </message>
    <message>
        <source>Block %1 arrived when block %2 was expected; the transfer is out of step.</source>
        <translation>期望收到第 %2 块时却收到了第 %1 块；传输已失步。</translation>
    </message>
    <message>
        <source>Writing to disk failed.</source>
        <translation>写入磁盘失败。</translation>
    </message>
    <message>
        <source>Received %1 bytes without an end of transfer. XMODEM has no length field, so there is no way to tell when it should stop.</source>
        <translation>已接收 %1 字节仍未见传输结束。XMODEM 没有长度字段，因此无法判断何时应当停止。</translation>
    </message>
    <message>
        <source>The device sent a malformed file header.</source>
        <translation>设备发送了格式错误的文件头。</translation>
    </message>
    <message>
        <source>The device offered a %1 byte file, which is over the receive limit.</source>
        <translation>设备提供了一个 %1 字节的文件，超过了接收上限。</translation>
    </message>
    <message>
        <source>The device did not start sending. Check that it is ready to send and that the baud rate matches.</source>
        <translation>设备没有开始发送。请检查设备是否已准备好发送，以及波特率是否一致。</translation>
    </message>
    <message>
        <source>The device stopped sending. YMODEM-G cannot recover, so the transfer has failed.</source>
        <translation>设备停止了发送。YMODEM-G 无法恢复，因此传输失败。</translation>
    </message>
</context>
</TS>
