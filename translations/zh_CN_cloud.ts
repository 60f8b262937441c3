<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="zh_CN" sourcelanguage="en">
<context>
    <name>AccountDialog</name>
    <message>
        <source>Account</source>
        <translation>账户</translation>
    </message>
    <message>
        <source>Server</source>
        <translation>服务器</translation>
    </message>
    <message>
        <source>Keep me signed in</source>
        <translation>保持登录</translation>
    </message>
    <message>
        <source>Sign In</source>
        <translation>登录</translation>
    </message>
    <message>
        <source>Email</source>
        <translation>电子邮箱</translation>
    </message>
    <message>
        <source>Password</source>
        <translation>密码</translation>
    </message>
    <message>
        <source>Send Code</source>
        <translation>发送验证码</translation>
    </message>
    <message>
        <source>Register</source>
        <translation>注册</translation>
    </message>
    <message>
        <source>Username</source>
        <translation>用户名</translation>
    </message>
    <message>
        <source>Confirm</source>
        <translation>确认密码</translation>
    </message>
    <message>
        <source>Code</source>
        <translation>验证码</translation>
    </message>
    <message>
        <source>Please enter an email address.</source>
        <translation>请输入电子邮箱地址。</translation>
    </message>
    <message>
        <source>Sending the code…</source>
        <translation>正在发送验证码…</translation>
    </message>
    <message>
        <source>Please enter your email and password.</source>
        <translation>请输入电子邮箱和密码。</translation>
    </message>
    <message>
        <source>Signing in…</source>
        <translation>正在登录…</translation>
    </message>
    <message>
        <source>Passwords do not match.</source>
        <translation>两次输入的密码不一致。</translation>
    </message>
    <message>
        <source>Creating the account…</source>
        <translation>正在创建账户…</translation>
    </message>
    <message>
        <source>Request completed.</source>
        <translation>请求已完成。</translation>
    </message>
    <message>
        <source>Request failed.</source>
        <translation>请求失败。</translation>
    </message>
    <message>
        <source>No reply from the server. Please try again.</source>
        <translation>服务器没有回复。请重试。</translation>
    </message>
</context>
<context>
    <name>AccountReplyHandler</name>
    <message>
        <source>My Account</source>
        <translation>我的账户</translation>
    </message>
    <message>
        <source>Sign in has expired.</source>
        <translation>登录已过期。</translation>
    </message>
    <message>
        <source>Device binding failed.</source>
        <translation>设备绑定失败。</translation>
    </message>
    <message>
        <source>Request failed.</source>
        <translation>请求失败。</translation>
    </message>
    <message>
        <source>You signed out.</source>
        <translation>您已退出登录。</translation>
    </message>
</context>
<context>
    <name>AccountSession</name>
    <message>
        <source>Not signed in</source>
        <translation>未登录</translation>
    </message>
</context>
<context>
    <name>CloudConsoleService</name>
    <message>
        <source>Live Console stopped: monthly traffic quota used up. Please top up to continue.</source>
        <translation>实时控制台已停止：本月流量配额已用完。请充值后继续使用。</translation>
    </message>
</context>
<context>
    <name>MyAccountDialog</name>
    <message>
        <source>Username</source>
        <translation>用户名</translation>
    </message>
    <message>
        <source>Email</source>
        <translation>电子邮箱</translation>
    </message>
    <message>
        <source>Server</source>
        <translation>服务器</translation>
    </message>
    <message>
        <source>Cloud traffic</source>
        <translation>云流量</translation>
    </message>
    <message>
        <source>Computer</source>
        <translation>计算机</translation>
    </message>
    <message>
        <source>Version</source>
        <translation>版本</translation>
    </message>
    <message>
        <source>Last seen</source>
        <translation>最近在线</translation>
    </message>
    <message>
        <source>Remove Computer</source>
        <translation>移除计算机</translation>
    </message>
    <message>
        <source>Refresh</source>
        <translation>刷新</translation>
    </message>
    <message>
        <source>Asking the server…</source>
        <translation>正在询问服务器…</translation>
    </message>
    <message>
        <source>%1 this month (no limit)</source>
        <translation>本月 %1（不限量）</translation>
    </message>
    <message>
        <source>%1 of %2 this month</source>
        <translation>本月已用 %1，共 %2</translation>
    </message>
    <message>
        <source>%1 (this computer)</source>
        <translation>%1（本机）</translation>
    </message>
    <message>
        <source>Remove this computer from the account? It stays signed in until the sign-in ends.</source>
        <translation>要从账户中移除这台计算机吗？在本次登录结束前它仍保持登录。</translation>
    </message>
    <message>
        <source>Remove &quot;%1&quot; from the account?</source>
        <translation>要从账户中移除“%1”吗？</translation>
    </message>
</context>
<context>
    <name>NetworkServices</name>
    <message>
        <source>The server does not offer this feature yet. The service may be under maintenance or being upgraded; please try again later or check for a newer version.</source>
        <translation>服务器尚未提供此功能。服务可能正在维护或升级，请稍后重试或检查是否有新版本。</translation>
    </message>
    <message>
        <source>The server declined the request. Please sign in again and retry.</source>
        <translation>服务器拒绝了请求。请重新登录后重试。</translation>
    </message>
    <message>
        <source>The server encountered an internal error. Please try again later.</source>
        <translation>服务器发生内部错误。请稍后重试。</translation>
    </message>
    <message>
        <source>The server rejected the request (HTTP %1). Please try again later.</source>
        <translation>服务器拒绝了请求（HTTP %1）。请稍后重试。</translation>
    </message>
    <message>
        <source>The server did not respond in time. Please check your network connection and try again.</source>
        <translation>服务器未及时响应。请检查网络连接后重试。</translation>
    </message>
    <message>
        <source>The server returned an unexpected response. Please try again later.</source>
        <translation>服务器返回了意外的响应。请稍后重试。</translation>
    </message>
    <message>
        <source>A secure connection to the server could not be established. Please check your network environment.</source>
        <translation>无法与服务器建立安全连接。请检查您的网络环境。</translation>
    </message>
    <message>
        <source>The proxy server could not be reached. Please check your proxy settings.</source>
        <translation>无法连接到代理服务器。请检查代理设置。</translation>
    </message>
    <message>
        <source>Could not connect to the server. Please check your network connection and try again.</source>
        <translation>无法连接到服务器。请检查网络连接后重试。</translation>
    </message>
</context>
<context>
    <name>SessionSyncCoordinator</name>
    <message>
        <source>Settings synced</source>
        <translation>设置已同步</translation>
    </message>
    <message>
        <source>Cloud settings applied</source>
        <translation>已应用云端设置</translation>
    </message>
    <message>
        <source>Cloud settings changed; use Sync Now to resolve.</source>
        <translation>云端设置已更改；请使用“立即同步”解决。</translation>
    </message>
    <message>
        <source>Sync Settings</source>
        <translation>同步设置</translation>
    </message>
    <message>
        <source>Cloud settings are different from this computer.</source>
        <translation>云端设置与本机不同。</translation>
    </message>
    <message>
        <source>Choose which settings to keep for this manual sync.</source>
        <translation>请选择本次手动同步要保留的设置。</translation>
    </message>
    <message>
        <source>Not synced yet</source>
        <translation>尚未同步</translation>
    </message>
    <message>
        <source>Last synced: %1</source>
        <translation>上次同步：%1</translation>
    </message>
    <message>
        <source>Sign in to sync your settings.</source>
        <translation>请登录后再同步设置。</translation>
    </message>
    <message>
        <source>Request failed.</source>
        <translation>请求失败。</translation>
    </message>
</context>
<context>
    <name>SyncSettingsDialog</name>
    <message>
        <source>Sync Settings</source>
        <translation>同步设置</translation>
    </message>
    <message>
        <source>Sync send history</source>
        <translation>同步发送历史</translation>
    </message>
    <message>
        <source>Sync automatically</source>
        <translation>自动同步</translation>
    </message>
    <message>
        <source> min</source>
        <translation> 分钟</translation>
    </message>
    <message>
        <source>Auto sync interval</source>
        <translation>自动同步间隔</translation>
    </message>
</context>
</TS>
